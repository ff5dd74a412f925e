#include "kernels.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace native {
namespace {

constexpr double kEps = 1e-12;

// Zero keeps itself, NaN stays NaN; no branches, so that loops over it vectorise.
inline double sign(double v) { return v > 0.0 ? 1.0 : v < 0.0 ? -1.0 : v; }

std::size_t window_of(double v) {
    if (!(v >= 1.0 && v <= 1e6) || v != std::floor(v))
        throw std::invalid_argument("a window must be a whole number of days from 1 to 1000000");
    return static_cast<std::size_t>(v);
}

// ------------------------------------------------------------------ windows

// Window sums of K quantities per instrument over the trailing `w` days, the
// way the reference computes them: running sums since the first day, and the
// sum at day t is run[t] - run[t - w]. Day by day, `load(t, v, ok)` writes the
// K rows of quantities of day t into v (zero where a value is not valid) and
// its validity into ok; `emit(t, full, sums)` receives the K rows of window
// sums and which instruments have all `w` days valid. Only w + 1 days of
// running sums are kept, and no more days than there are: a window longer
// than the data never reads a day that left it.
template <std::size_t K, class Load, class Emit>
void rolling_sums(Shape sh, std::size_t w, Load load, Emit emit) {
    const std::size_t n = sh.names, slots = std::min(w, sh.days) + 1, row = K * n;
    std::vector<double> ring(slots * row), zero(row, 0.0), values(row), sums(row);
    std::vector<double> valid(slots * n), count(n, 0.0), full(n);
    const double need = static_cast<double>(w);
    for (std::size_t t = 0; t < sh.days; ++t) {
        double* __restrict cur = ring.data() + (t % slots) * row;
        const double* __restrict prev = t ? ring.data() + ((t - 1) % slots) * row : zero.data();
        const double* __restrict old = t >= w ? ring.data() + ((t - w) % slots) * row : zero.data();
        double* __restrict ok = valid.data() + (t % slots) * n;
        const double* __restrict gone = t >= w ? valid.data() + ((t - w) % slots) * n : zero.data();
        double* __restrict v = values.data();
        double* __restrict out = sums.data();
        load(t, v, ok);
        for (std::size_t i = 0; i < n; ++i) {
            count[i] += ok[i] - gone[i];
            full[i] = t + 1 >= w && count[i] == need ? 1.0 : 0.0;
        }
        for (std::size_t q = 0; q < row; ++q) {
            cur[q] = prev[q] + v[q];
            out[q] = cur[q] - old[q];
        }
        emit(t, full.data(), out);
    }
}

// The value where finite (zero elsewhere) and, for K = 2, its square: rows
// [value] or [value, square].
template <std::size_t K>
auto finite_values(In x, std::size_t n) {
    return [x, n](std::size_t t, double* __restrict v, double* __restrict ok) {
        const double* __restrict row = x.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) {
            const bool good = finite(row[i]);
            ok[i] = good ? 1.0 : 0.0;
            v[i] = good ? row[i] : 0.0;
            if constexpr (K == 2) v[n + i] = v[i] * v[i];
        }
    };
}

// Per instrument and day, f(window sum, window sum of squares, today's value)
// where all w days of the window are valid, else NaN. With K = 1 the sum of
// squares is not computed and f is given zero for it.
template <std::size_t K, class F>
Panel rolling_moments(In x, Shape sh, std::size_t w, F f) {
    const std::size_t n = sh.names;
    Panel out(sh.size());
    rolling_sums<K>(sh, w, finite_values<K>(x, n), [&](std::size_t t, const double* full, const double* s) {
        const double* __restrict now = x.data() + t * n;
        double* __restrict dst = out.data() + t * n;
        for (std::size_t i = 0; i < n; ++i)
            dst[i] = full[i] != 0.0 ? finite_or_nan(f(s[i], K == 2 ? s[n + i] : 0.0, now[i])) : kNaN;
    });
    return out;
}

Panel shift(In x, Shape sh, std::size_t lag) {
    Panel out(sh.size(), kNaN);
    if (lag < sh.days)
        std::copy(x.begin(), x.begin() + static_cast<std::ptrdiff_t>((sh.days - lag) * sh.names),
                  out.data() + lag * sh.names);
    return out;
}

TW_VECTOR_CLONES
Panel safe_div(In x, In y) {
    Panel out(x.size());
    for (std::size_t k = 0; k < x.size(); ++k)
        out[k] = finite_or_nan(std::fabs(y[k]) > kEps ? x[k] / y[k] : kNaN);
    return out;
}

TW_VECTOR_CLONES
Panel ts_mean(In x, Shape sh, std::size_t w) {
    const double len = static_cast<double>(w);
    return rolling_moments<1>(x, sh, w, [len](double sum, double, double) { return sum / len; });
}

// Rolling mean and population standard deviation from the window sums of a
// value and its square.
inline double window_sd(double sum, double sum_sq, double len) {
    const double mean = sum / len;
    return std::sqrt(std::max(sum_sq / len - mean * mean, 0.0));
}

TW_VECTOR_CLONES
Panel ts_std(In x, Shape sh, std::size_t w) {
    const double len = static_cast<double>(w);
    return rolling_moments<2>(x, sh, w, [len](double sum, double sum_sq, double) { return window_sd(sum, sum_sq, len); });
}

TW_VECTOR_CLONES
Panel ts_zscore(In x, Shape sh, std::size_t w) {
    const double len = static_cast<double>(w);
    return rolling_moments<2>(x, sh, w, [len](double sum, double sum_sq, double now) {
        const double mean = sum / len, sd = window_sd(sum, sum_sq, len);
        const double z = sd > kEps * (1.0 + std::fabs(mean)) ? (now - mean) / sd : 0.0;
        return finite(now) ? z : kNaN;
    });
}

TW_VECTOR_CLONES
Panel ts_corr(In x, In y, Shape sh, std::size_t w) {
    const std::size_t n = sh.names;
    Panel out(sh.size());
    const double len = static_cast<double>(w);
    // Over the days where both are valid: rows x, x^2, y, y^2 and x*y (when finite).
    auto load = [&](std::size_t t, double* __restrict v, double* __restrict ok) {
        const double* __restrict a = x.data() + t * n;
        const double* __restrict b = y.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) {
            const bool both = finite(a[i]) && finite(b[i]);
            const double p = both ? a[i] : 0.0, q = both ? b[i] : 0.0, pq = p * q;
            ok[i] = both ? 1.0 : 0.0;
            v[i] = p;
            v[n + i] = p * p;
            v[2 * n + i] = q;
            v[3 * n + i] = q * q;
            v[4 * n + i] = finite(pq) ? pq : 0.0;
        }
    };
    rolling_sums<5>(sh, w, load, [&](std::size_t t, const double* full, const double* s) {
        double* __restrict dst = out.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) {
            const double mx = s[i] / len, my = s[2 * n + i] / len;
            const double cov = s[4 * n + i] / len - mx * my;
            const double vx = s[n + i] / len - mx * mx;
            const double vy = s[3 * n + i] / len - my * my;
            const double denom = std::sqrt(std::max(vx, 0.0) * std::max(vy, 0.0));
            const double r = denom > kEps ? cov / denom : 0.0;
            dst[i] = full[i] != 0.0 ? finite_or_nan(std::min(std::max(r, -1.0), 1.0)) : kNaN;
        }
    });
    return out;
}

// Kernels over the trailing window of each day, a whole day of instruments at
// a time. `per_day(t, first_row, out_row)` writes day t from the rows
// first_row .. first_row + w - 1 of the window; a day whose window holds a
// value that `bad` flags is NaN, and so are the days before the first full
// window (every day when the window is longer than the data).
template <class Bad, class PerDay>
Panel over_windows(In x, Shape sh, std::size_t w, Bad bad, PerDay per_day) {
    const std::size_t n = sh.names;
    Panel out(sh.size(), kNaN);
    if (w == 0 || w > sh.days) return out;
    std::vector<double> flagged(n, 0.0);
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* __restrict now = x.data() + t * n;
        for (std::size_t i = 0; i < n; ++i) flagged[i] += bad(now[i]) ? 1.0 : 0.0;
        if (t >= w) {
            const double* __restrict gone = x.data() + (t - w) * n;
            for (std::size_t i = 0; i < n; ++i) flagged[i] -= bad(gone[i]) ? 1.0 : 0.0;
        }
        if (t + 1 < w) continue;
        double* __restrict row = out.data() + t * n;
        per_day(x.data() + (t + 1 - w) * n, row);
        for (std::size_t i = 0; i < n; ++i) row[i] = flagged[i] != 0.0 ? kNaN : finite_or_nan(row[i]);
    }
    return out;
}

bool not_finite(double v) { return !finite(v); }
bool is_nan(double v) { return std::isnan(v); }

// The two counting loops below carry most of the ranking work. Called from a
// kernel's clone they are inlined into it; their own clones serve any other caller.

// For each instrument: how many of the w rows of the window are below `last`,
// and how many others equal it.
TW_VECTOR_CLONES
void count_below_and_equal(const double* __restrict win, std::size_t w, std::size_t n,
                           const double* __restrict last, double* __restrict below, double* __restrict equal) {
    std::fill_n(below, n, 0.0);
    std::fill_n(equal, n, -1.0);
    for (std::size_t j = 0; j < w; ++j)
        for (std::size_t i = 0; i < n; ++i) {
            below[i] += win[j * n + i] < last[i] ? 1.0 : 0.0;
            equal[i] += win[j * n + i] == last[i] ? 1.0 : 0.0;
        }
}

// 0-based average-tie ranks of n values by counting pairs: (2 below + equal - 1) / 2.
// NaN values never compare, so they neither count nor get a meaningful rank.
TW_VECTOR_CLONES
void count_ranks(const double* __restrict v, std::size_t n, double* __restrict rank) {
    std::fill_n(rank, n, -1.0);
    for (std::size_t j = 0; j < n; ++j) {
        const double other = v[j];
        for (std::size_t i = 0; i < n; ++i) rank[i] += other < v[i] ? 2.0 : other == v[i] ? 1.0 : 0.0;
    }
    for (std::size_t i = 0; i < n; ++i) rank[i] /= 2.0;
}

TW_VECTOR_CLONES
Panel ts_rank(In x, Shape sh, std::size_t w) {
    const std::size_t n = sh.names;
    const double denom = static_cast<double>(std::max<std::size_t>(w, 2) - 1);
    std::vector<double> below(n), equal(n);
    return over_windows(x, sh, w, not_finite, [&](const double* __restrict win, double* __restrict row) {
        const double* __restrict last = win + (w - 1) * n;
        double* __restrict lo = below.data();
        double* __restrict eq = equal.data();
        count_below_and_equal(win, w, n, last, lo, eq);
        for (std::size_t i = 0; i < n; ++i) row[i] = (below[i] + 0.5 * equal[i]) / denom;
    });
}

TW_VECTOR_CLONES
Panel ts_decay(In x, Shape sh, std::size_t w) {
    const std::size_t n = sh.names;
    std::vector<double> weights(w);
    for (std::size_t j = 0; j < w; ++j) weights[j] = static_cast<double>(j + 1);
    const double total = pairwise_sum(weights.data(), w);
    for (double& v : weights) v /= total;
    return over_windows(x, sh, w, is_nan, [&](const double* __restrict win, double* __restrict row) {
        std::fill_n(row, n, 0.0);
        for (std::size_t j = 0; j < w; ++j)
            for (std::size_t i = 0; i < n; ++i) row[i] += win[j * n + i] * weights[j];
    });
}

template <bool Max>
TW_VECTOR_CLONES
Panel ts_extremum(In x, Shape sh, std::size_t w) {
    const std::size_t n = sh.names;
    return over_windows(x, sh, w, is_nan, [&](const double* __restrict win, double* __restrict row) {
        std::copy_n(win, n, row);
        for (std::size_t j = 1; j < w; ++j)
            for (std::size_t i = 0; i < n; ++i) {
                const double v = win[j * n + i];
                row[i] = (Max ? v > row[i] : v < row[i]) ? v : row[i];
            }
    });
}

// ------------------------------------------------------------------ cross-section

// Per day: which values are valid, their mean and population deviation.
struct RowMoments {
    std::size_t count = 0;
    double mean = 0.0;
    double sd = 0.0;
};

RowMoments row_moments(const double* row, std::size_t n, std::vector<double>& scratch) {
    RowMoments m;
    scratch.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const bool ok = finite(row[i]);
        m.count += ok;
        scratch[i] = ok ? row[i] : 0.0;
    }
    const double safe = static_cast<double>(std::max<std::size_t>(m.count, 1));
    m.mean = pairwise_sum(scratch.data(), n) / safe;
    for (std::size_t i = 0; i < n; ++i) {
        const double d = row[i] - m.mean;
        scratch[i] = finite(row[i]) ? d * d : 0.0;
    }
    m.sd = std::sqrt(pairwise_sum(scratch.data(), n) / safe);
    return m;
}

// Apply `f(value, moments)` to the valid values of each day; NaN elsewhere.
template <class F>
TW_VECTOR_CLONES
Panel per_row(In x, Shape sh, F f) {
    Panel out(sh.size());
    std::vector<double> scratch;
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* row = x.data() + t * sh.names;
        const RowMoments m = row_moments(row, sh.names, scratch);
        for (std::size_t i = 0; i < sh.names; ++i)
            out[t * sh.names + i] = finite(row[i]) ? finite_or_nan(f(row[i], m)) : kNaN;
    }
    return out;
}

// Average-tie ranks of the valid values of one day, 0-based, written to
// `rank`; returns how many are valid. The rank of a value is the mean of the
// first and last places of its group of equal values: (2 below + equal - 1) / 2.
// A short day counts pairs directly, a long one sorts.
std::size_t rank_day(const double* row, std::size_t n, std::vector<double>& values,
                     std::vector<std::pair<double, std::size_t>>& order, double* rank) {
    values.resize(n);
    std::size_t m = 0;
    for (std::size_t i = 0; i < n; ++i) {
        values[i] = finite(row[i]) ? row[i] : kNaN;  // NaN never compares
        m += finite(row[i]);
    }
    if (n <= 64) {
        count_ranks(values.data(), n, rank);
        return m;
    }
    order.clear();
    for (std::size_t i = 0; i < n; ++i)
        if (finite(row[i])) order.emplace_back(row[i], i);
    std::sort(order.begin(), order.end());
    for (std::size_t a = 0; a < m;) {
        std::size_t b = a + 1;
        while (b < m && order[b].first == order[a].first) ++b;
        for (std::size_t j = a; j < b; ++j) rank[order[j].second] = static_cast<double>(a + b - 1) / 2.0;
        a = b;
    }
    return m;
}

TW_VECTOR_CLONES
Panel cs_rank(In x, Shape sh, bool ascending) {
    Panel out(sh.size());
    std::vector<double> values;
    std::vector<std::pair<double, std::size_t>> order;
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* row = x.data() + t * sh.names;
        double* dst = out.data() + t * sh.names;
        const std::size_t m = rank_day(row, sh.names, values, order, dst);
        const double denom = static_cast<double>(std::max<std::size_t>(m, 2) - 1);
        for (std::size_t i = 0; i < sh.names; ++i) {
            double scaled = m > 1 ? dst[i] / denom : 0.5;
            if (!ascending) scaled = 1.0 - scaled;
            dst[i] = finite(row[i]) ? scaled : kNaN;
        }
    }
    return out;
}

TW_VECTOR_CLONES
Panel cs_scale(In x, Shape sh) {
    Panel out(sh.size());
    std::vector<double> scratch(sh.names);
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* row = x.data() + t * sh.names;
        for (std::size_t i = 0; i < sh.names; ++i) scratch[i] = finite(row[i]) ? std::fabs(row[i]) : 0.0;
        const double gross = pairwise_sum(scratch.data(), sh.names);
        for (std::size_t i = 0; i < sh.names; ++i)
            out[t * sh.names + i] = !finite(row[i]) ? kNaN : finite_or_nan(gross > kEps ? row[i] / gross : 0.0);
    }
    return out;
}

// Each value minus the mean of the valid values of its group that day.
TW_VECTOR_CLONES
Panel group_demean(In x, Shape sh, const Groups& groups) {
    Panel out(sh.size());
    std::vector<double> means(sh.names);
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* row = x.data() + t * sh.names;
        for (std::size_t g = 0; g < groups.count(); ++g) {
            const std::size_t first = groups.starts[g], size = groups.starts[g + 1] - first;
            std::size_t valid = 0;
            double sum = 0.0;
            for (std::size_t j = 0; j < size; ++j) {
                const double v = row[groups.members[first + j]];
                valid += finite(v);
                sum += finite(v) ? v : 0.0;
            }
            const double mean = valid ? sum / static_cast<double>(valid) : 0.0;
            for (std::size_t j = 0; j < size; ++j) means[groups.members[first + j]] = mean;
        }
        for (std::size_t i = 0; i < sh.names; ++i)
            out[t * sh.names + i] = finite(row[i]) ? finite_or_nan(row[i] - means[i]) : kNaN;
    }
    return out;
}

TW_VECTOR_CLONES
Panel cs_median(In x, Shape sh) {
    Panel out(sh.size());
    std::vector<double> valid;
    for (std::size_t t = 0; t < sh.days; ++t) {
        const double* row = x.data() + t * sh.names;
        valid.clear();
        for (std::size_t i = 0; i < sh.names; ++i)
            if (finite(row[i])) valid.push_back(row[i]);
        double median = kNaN;
        const std::size_t m = valid.size();
        if (m) {
            const auto mid = valid.begin() + static_cast<std::ptrdiff_t>(m / 2);
            std::nth_element(valid.begin(), mid, valid.end());
            median = *mid;
            if (m % 2 == 0) median = (*std::max_element(valid.begin(), mid) + median) / 2.0;
        }
        std::fill_n(out.data() + t * sh.names, sh.names, finite_or_nan(median));
    }
    return out;
}

// ------------------------------------------------------------------ elementwise

template <class F>
TW_VECTOR_CLONES
Panel map1(In x, F f) {
    Panel out(x.size());
    for (std::size_t k = 0; k < x.size(); ++k) out[k] = finite_or_nan(f(x[k]));
    return out;
}

template <class F>
TW_VECTOR_CLONES
Panel map2(In x, In y, F f) {
    Panel out(x.size());
    for (std::size_t k = 0; k < x.size(); ++k) out[k] = finite_or_nan(f(x[k], y[k]));
    return out;
}

// ------------------------------------------------------------------ the table

using Data = const In*;
using Config = const double*;

const Operator kOperators[] = {
    {"delay", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return shift(d[0], sh, window_of(c[0])); }},
    {"ts_delta", 1, 2, [](const Env&, Shape sh, Data d, Config c) {
         const Panel prev = shift(d[0], sh, window_of(c[0]));
         Panel diff = map2(d[0], prev, [](double a, double b) { return a - b; });
         if (c[1] == 0.0) return diff;
         const Panel base = map1(prev, [](double v) { return std::fabs(v); });
         return safe_div(diff, base);
     }},
    {"ts_mean", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_mean(d[0], sh, window_of(c[0])); }},
    {"ts_std", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_std(d[0], sh, window_of(c[0])); }},
    {"ts_rank", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_rank(d[0], sh, window_of(c[0])); }},
    {"ts_zscore", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_zscore(d[0], sh, window_of(c[0])); }},
    {"ts_decay", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_decay(d[0], sh, window_of(c[0])); }},
    {"ts_max", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_extremum<true>(d[0], sh, window_of(c[0])); }},
    {"ts_min", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_extremum<false>(d[0], sh, window_of(c[0])); }},
    {"ts_corr", 2, 1, [](const Env&, Shape sh, Data d, Config c) { return ts_corr(d[0], d[1], sh, window_of(c[0])); }},
    {"rank", 1, 1, [](const Env&, Shape sh, Data d, Config c) { return cs_rank(d[0], sh, c[0] != 0.0); }},
    {"zscore", 1, 0, [](const Env&, Shape sh, Data d, Config) {
         return per_row(d[0], sh, [](double v, const RowMoments& m) {
             return m.sd > kEps * (1.0 + std::fabs(m.mean)) ? (v - m.mean) / m.sd : 0.0;
         });
     }},
    {"demean", 1, 0, [](const Env&, Shape sh, Data d, Config) {
         return per_row(d[0], sh, [](double v, const RowMoments& m) { return v - m.mean; });
     }},
    {"scale", 1, 0, [](const Env&, Shape sh, Data d, Config) { return cs_scale(d[0], sh); }},
    {"winsorize", 1, 1, [](const Env&, Shape sh, Data d, Config c) {
         const double limit = c[0];
         return per_row(d[0], sh, [limit](double v, const RowMoments& m) {
             return std::min(std::max(v, m.mean - limit * m.sd), m.mean + limit * m.sd);
         });
     }},
    // config: index of the grouping among ("sector", "market")
    {"group_neutralize", 1, 1, [](const Env& env, Shape sh, Data d, Config c) {
         if (c[0] == 0.0) return group_demean(d[0], sh, env.sectors);
         return per_row(d[0], sh, [](double v, const RowMoments& m) { return v - m.mean; });
     }},
    {"add", 2, 0, [](const Env&, Shape, Data d, Config) { return map2(d[0], d[1], [](double a, double b) { return a + b; }); }},
    {"sub", 2, 0, [](const Env&, Shape, Data d, Config) { return map2(d[0], d[1], [](double a, double b) { return a - b; }); }},
    {"mul", 2, 0, [](const Env&, Shape, Data d, Config) { return map2(d[0], d[1], [](double a, double b) { return a * b; }); }},
    {"div", 2, 0, [](const Env&, Shape, Data d, Config) { return safe_div(d[0], d[1]); }},
    {"abs", 1, 0, [](const Env&, Shape, Data d, Config) { return map1(d[0], [](double v) { return std::fabs(v); }); }},
    {"sign", 1, 0, [](const Env&, Shape, Data d, Config) { return map1(d[0], [](double v) { return sign(v); }); }},
    {"log1p", 1, 0, [](const Env&, Shape, Data d, Config) {
         return map1(d[0], [](double v) { return sign(v) * std::log1p(std::fabs(v)); });
     }},
    {"signed_power", 1, 1, [](const Env&, Shape, Data d, Config c) {
         const double e = c[0];
         return map1(d[0], [e](double v) {
             const double a = std::fabs(v);
             // Exponents 2 and 0.5 take the exact square and square root, as the reference does.
             const double p = e == 2.0 ? a * a : e == 0.5 ? std::sqrt(a) : std::pow(a, e);
             return sign(v) * p;
         });
     }},
    {"liquid_only", 1, 1, [](const Env& env, Shape sh, Data d, Config c) {
         const double top = c[0];
         const double names = static_cast<double>(std::max<std::size_t>(sh.names, 2) - 1);
         Panel out(sh.size());
         for (std::size_t k = 0; k < sh.size(); ++k)
             out[k] = env.liquidity_rank[k] * names < top ? finite_or_nan(d[0][k]) : kNaN;
         return out;
     }},
    {"price_above", 1, 1, [](const Env&, Shape, Data d, Config c) {
         const double floor = c[0];
         return map1(d[0], [floor](double v) { return v > floor ? v : kNaN; });
     }},
    {"cs_mean", 1, 0, [](const Env&, Shape sh, Data d, Config) {
         Panel out(sh.size());
         std::vector<double> scratch;
         for (std::size_t t = 0; t < sh.days; ++t) {
             const RowMoments m = row_moments(d[0].data() + t * sh.names, sh.names, scratch);
             std::fill_n(out.data() + t * sh.names, sh.names, m.count ? finite_or_nan(m.mean) : kNaN);
         }
         return out;
     }},
    {"cs_median", 1, 0, [](const Env&, Shape sh, Data d, Config) { return cs_median(d[0], sh); }},
};

}  // namespace

namespace buffers {
namespace {

struct Kept {
    std::mutex lock;
    std::vector<std::pair<std::size_t, double*>> free;  // (doubles, buffer)
    std::size_t bytes = 0;
};

// Never destroyed: buffers may still come back while the process exits.
Kept& kept() {
    static Kept* k = new Kept;
    return *k;
}

}  // namespace

double* take(std::size_t n) {
    Kept& k = kept();
    {
        std::lock_guard<std::mutex> hold(k.lock);
        for (auto it = k.free.rbegin(); it != k.free.rend(); ++it) {
            if (it->first != n) continue;
            double* p = it->second;
            k.free.erase(std::next(it).base());
            k.bytes -= n * sizeof(double);
            return p;
        }
    }
    return new double[n];
}

void give(double* p, std::size_t n) noexcept {
    if (!p) return;
    Kept& k = kept();
    {
        std::lock_guard<std::mutex> hold(k.lock);
        if (k.bytes + n * sizeof(double) <= kKeptBytes) {
            try {
                k.free.emplace_back(n, p);
                k.bytes += n * sizeof(double);
                return;
            } catch (const std::bad_alloc&) {
            }
        }
    }
    delete[] p;
}

}  // namespace buffers

Groups index_groups(const std::vector<long>& group, std::size_t count) {
    Groups out;
    out.starts.assign(count + 1, 0);
    for (long g : group) ++out.starts[static_cast<std::size_t>(g) + 1];
    for (std::size_t g = 0; g < count; ++g) out.starts[g + 1] += out.starts[g];
    out.members.resize(group.size());
    std::vector<std::size_t> next(out.starts.begin(), out.starts.end() - 1);
    for (std::size_t i = 0; i < group.size(); ++i) out.members[next[static_cast<std::size_t>(group[i])]++] = i;
    return out;
}

const Operator* find_operator(std::string_view name) {
    for (const Operator& op : kOperators)
        if (op.name == name) return &op;
    return nullptr;
}

}  // namespace native
