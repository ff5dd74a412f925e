#include "backtest.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace native {
namespace {

constexpr double kTradingDays = 252.0;
constexpr double kRelTol = 1e-9;

double sum_of(const std::vector<double>& v) { return pairwise_sum(v.data(), v.size()); }

double mean_of(const std::vector<double>& v) { return sum_of(v) / static_cast<double>(v.size()); }

struct Column {
    double sharpe = 0, returns = 0, drawdown = 0;
};

Column column(const std::vector<double>& p) {
    Column c;
    const double mean = mean_of(p);
    std::vector<double> dev(p.size());
    for (std::size_t k = 0; k < p.size(); ++k) dev[k] = (p[k] - mean) * (p[k] - mean);
    const double sd = std::sqrt(mean_of(dev));
    c.sharpe = sd > 0.0 ? mean / sd * std::sqrt(kTradingDays) : 0.0;
    c.returns = mean * kTradingDays;
    double cum = 0.0, peak = 0.0;
    for (double v : p) {
        cum += v;
        peak = std::max(peak, cum);
        c.drawdown = std::max(c.drawdown, peak - cum);
    }
    return c;
}

double dot(const double* a, const double* b, std::size_t n) {
    double s = 0.0;
    for (std::size_t k = 0; k < n; ++k) s += a[k] * b[k];
    return s;
}

}  // namespace

void derive(Market& m) {
    m.inverse_adv.resize(m.adv.size());
    for (std::size_t k = 0; k < m.adv.size(); ++k) m.inverse_adv[k] = 1.0 / m.adv[k];
}

TW_VECTOR_CLONES void signal_weights(In signal, const Market& m, const Settings& s, std::vector<double>& w) {
    const std::size_t n = m.shape.names;
    const double cap = s.max_position;
    w.resize(m.shape.size());
    std::vector<double> ok(n), scratch(n);
    for (std::size_t t = 0; t < m.shape.days; ++t) {
        double* __restrict row = w.data() + t * n;
        const double* __restrict x = signal.data() + t * n;
        const double* __restrict tradable = m.tradable.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) {
            ok[i] = finite(x[i]) ? tradable[i] : 0.0;
            row[i] = ok[i] != 0.0 ? x[i] : 0.0;
            scratch[i] = std::fabs(row[i]);
        }
        const double count = static_cast<double>(std::count(ok.begin(), ok.end(), 1.0));
        const double scale = pairwise_sum(scratch.data(), n);
        const double mean = pairwise_sum(row, n) / std::max(count, 1.0);
        for (std::size_t i = 0; i < n; ++i) {
            row[i] = (row[i] - mean) * ok[i];
            scratch[i] = std::fabs(row[i]);
        }
        const double gross = pairwise_sum(scratch.data(), n);
        const bool live = count >= s.min_names && gross > kRelTol * std::max(scale, 1e-300);
        const double divisor = live ? gross : HUGE_VAL;
        for (std::size_t i = 0; i < n; ++i) row[i] /= divisor;
        bool over = false;
        for (std::size_t i = 0; i < n; ++i) over |= std::fabs(row[i]) > cap;
        if (!over) continue;
        // Clipping a dominant name breaks neutrality; a few rounds of clip,
        // demean and rescale bring the book back close to dollar neutral.
        const double inside = live ? std::max(count, 1.0) : 1.0;
        for (int round = 0; round < s.clip_rounds; ++round) {
            for (std::size_t i = 0; i < n; ++i) row[i] = std::clamp(row[i], -cap, cap);
            const double clipped_mean = pairwise_sum(row, n) / inside;
            for (std::size_t i = 0; i < n; ++i) {
                row[i] = (row[i] - clipped_mean) * (live ? ok[i] : 0.0);
                scratch[i] = std::fabs(row[i]);
            }
            const double clipped_gross = std::max(pairwise_sum(scratch.data(), n), 1e-300);
            for (std::size_t i = 0; i < n; ++i) row[i] /= clipped_gross;
        }
    }
}

TW_VECTOR_CLONES Figures backtest(In signal, const Market& m, const Settings& s) {
    thread_local std::vector<double> weights, trade_sq, illiquid;
    signal_weights(signal, m, s, weights);
    const std::vector<double>& w = weights;
    const std::size_t days = m.shape.days, n = m.shape.names;
    const std::size_t factors = m.sectors.count() + 1, sectors = factors - 1;
    Figures f;
    f.pnl.assign(days ? days - 1 : 0, 0.0);
    f.factor_pnl.assign(factors, 0.0);
    if (days < 2) return f;

    // One sweep over the days, each day's weights read while they are in
    // cache: what the reference computes in separate passes, each value with
    // the same operations in the same order. Trading (into day t) and the
    // sector exposures are kept for every day; the figures below use those
    // from the first day with a position on.
    std::vector<double> gross(days), traded(days, 0.0), scratch(n), exposures(days * sectors);
    std::vector<double> longs, shorts, exposure, inverse_concentration;
    std::vector<double> largest(n, 0.0);  // per name: a maximum does not depend on order
    trade_sq.resize(days * n);
    illiquid.resize(days * n);
    for (std::size_t t = 0; t < days; ++t) {
        const double* __restrict row = w.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) {
            scratch[i] = std::fabs(row[i]);
            illiquid[t * n + i] = scratch[i] * m.illiquid[t * n + i];
        }
        gross[t] = pairwise_sum(scratch.data(), n);
        if (t + 1 < days) {
            const double* __restrict next = m.returns.data() + (t + 1) * n;
            for (std::size_t i = 0; i < n; ++i) scratch[i] = row[i] * next[i];
            f.pnl[t] = pairwise_sum(scratch.data(), n);
            for (std::size_t g = 0; g < sectors; ++g) {
                double e = 0.0;
                for (std::size_t j = m.sectors.starts[g]; j < m.sectors.starts[g + 1]; ++j) e += row[m.sectors.members[j]];
                exposures[t * sectors + g] = e;
            }
        }
        if (t >= 1) {
            const double* __restrict before = w.data() + (t - 1) * n;
            const double* __restrict inverse_adv = m.inverse_adv.data() + t * n;
            for (std::size_t i = 0; i < n; ++i) {
                scratch[i] = std::fabs(row[i] - before[i]);
                trade_sq[t * n + i] = scratch[i] * scratch[i] * inverse_adv[i];
            }
            traded[t] = pairwise_sum(scratch.data(), n);
        }
        if (!(gross[t] > 0.0)) continue;
        const double* __restrict beta = m.beta.data() + t * n;
        std::size_t l = 0, sh = 0;
        for (std::size_t i = 0; i < n; ++i) {
            l += row[i] > 0.0;
            sh += row[i] < 0.0;
            largest[i] = std::max(largest[i], std::fabs(row[i]));
            scratch[i] = row[i] * beta[i];
        }
        longs.push_back(static_cast<double>(l));
        shorts.push_back(static_cast<double>(sh));
        exposure.push_back(std::fabs(pairwise_sum(scratch.data(), n)));
        for (std::size_t i = 0; i < n; ++i) scratch[i] = row[i] * row[i];
        inverse_concentration.push_back(1.0 / pairwise_sum(scratch.data(), n));
    }

    std::size_t first = 0;
    while (first + 1 < days && !(gross[first] > 0.0)) ++first;
    if (first + 1 >= days) {
        std::fill(f.pnl.begin(), f.pnl.end(), 0.0);
        return f;
    }
    f.has_positions = true;

    const std::vector<double> period(f.pnl.begin() + static_cast<std::ptrdiff_t>(first), f.pnl.end());
    const std::size_t span = period.size();  // days first+1 .. T-1
    const std::vector<double> trades(traded.begin() + static_cast<std::ptrdiff_t>(first + 1), traded.end());
    std::vector<double> net(span);
    for (std::size_t k = 0; k < span; ++k) net[k] = period[k] - trades[k] * s.cost_bps / 1e4;
    const double initial = gross[first];
    net[0] = period[0] - (trades[0] * s.cost_bps / 1e4 + initial * s.cost_bps / 1e4);

    const Column g = column(period), c = column(net);
    f.sharpe = g.sharpe;
    f.returns = g.returns;
    f.drawdown = g.drawdown;
    f.net_sharpe = c.sharpe;
    f.net_returns = c.returns;
    f.net_drawdown = c.drawdown;
    f.fitness = g.sharpe > 0.0 && g.returns > 0.0
                    ? g.sharpe * std::min(std::max(c.returns / g.returns, 0.0), 1.0)
                    : g.sharpe;
    const double traded_sum = sum_of(trades);
    const double total_traded = initial + traded_sum;
    f.turnover = traded_sum / static_cast<double>(span);
    f.margin = total_traded > 0 ? sum_of(period) / total_traded * 1e4 : 0.0;

    // Over the days with a position.
    f.max_weight = *std::max_element(largest.begin(), largest.end());
    f.long_count = mean_of(longs);
    f.short_count = mean_of(shorts);
    f.delta_exposure = mean_of(exposure);
    f.effective_positions = mean_of(inverse_concentration);
    f.coverage = static_cast<double>(longs.size()) / static_cast<double>(days);

    // Factor PnL: exposure to the market and to each sector times the factor's return.
    for (std::size_t k = 0; k < span; ++k) {
        const double* held = exposures.data() + (first + k) * sectors;
        const double* factor_returns = m.factor_returns.data() + (first + k + 1) * factors;
        double market_exposure = 0.0;
        for (std::size_t g = 0; g < sectors; ++g) {
            f.factor_pnl[g + 1] += held[g] * factor_returns[g + 1];
            market_exposure += held[g];
        }
        f.factor_pnl[0] += market_exposure * factor_returns[0];
    }
    for (double& v : f.factor_pnl) v = v / static_cast<double>(span) * kTradingDays;

    std::vector<double> market(span);
    for (std::size_t k = 0; k < span; ++k) market[k] = m.factor_returns[(first + k + 1) * factors];
    const double pm = mean_of(period), mm = mean_of(market);
    std::vector<double> pc(span), mc(span);
    for (std::size_t k = 0; k < span; ++k) {
        pc[k] = period[k] - pm;
        mc[k] = market[k] - mm;
    }
    const double denom = std::sqrt(dot(pc.data(), pc.data(), span) * dot(mc.data(), mc.data(), span));
    const double rho = denom > 0.0 ? dot(pc.data(), mc.data(), span) / denom : 0.0;
    f.is_pnl_mi = -0.5 * std::log(1.0 - std::min(rho * rho, 1.0 - 1e-12));

    const double dollars = traded_sum * s.book_size;
    f.participation = dollars > 0 ? pairwise_sum(trade_sq.data() + (first + 1) * n, span * n) * (s.book_size * s.book_size) / dollars : 0.0;
    f.illiquid_share = pairwise_sum(illiquid.data(), days * n) / static_cast<double>(longs.size());
    return f;
}

}  // namespace native
