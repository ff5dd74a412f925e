// The daily long-short backtest of a signal panel, in plain C++ so that it
// runs with the interpreter lock released. It mirrors the NumPy reference
// backtest step by step; the caller turns its figures into the stats records.
#pragma once

#include <vector>

#include "kernels.hpp"

namespace native {

struct Settings {
    double max_position = 0.10;
    double min_names = 10;
    double book_size = 20e6;
    double cost_bps = 5.0;
    int clip_rounds = 3;
};

// Per-panel arrays the backtest needs, computed once by the caller.
struct Market {
    Shape shape;
    std::vector<double> tradable;         // days x instruments: 1 or 0
    std::vector<double> returns;          // return of each day
    std::vector<double> adv;              // average daily dollar volume
    std::vector<double> inverse_adv;      // its inverse, by derive()
    std::vector<double> illiquid;         // 1 in the least liquid fifth, else 0
    std::vector<double> beta;             // trailing market beta
    Groups sectors;
    std::vector<double> factor_returns;   // days x (1 + sectors): the market, then each sector
};

struct Figures {
    bool has_positions = false;
    std::vector<double> pnl;  // days 1..T-1, zero before the first position
    double sharpe = 0, fitness = 0, returns = 0, drawdown = 0, turnover = 0, margin = 0;
    double long_count = 0, short_count = 0, delta_exposure = 0, max_weight = 0;
    double net_sharpe = 0, net_returns = 0, net_drawdown = 0;
    std::vector<double> factor_pnl;
    double is_pnl_mi = 0, effective_positions = 0, coverage = 0;
    double participation = 0, illiquid_share = 0;
};

// Weights held over each next day, into w: the signal demeaned over the
// tradable names, scaled to unit gross, clipped per name and rescaled.
void signal_weights(In signal, const Market& market, const Settings& settings, std::vector<double>& w);

// Fill in the arrays the backtest derives from the others, once.
void derive(Market& market);

Figures backtest(In signal, const Market& market, const Settings& settings);

}  // namespace native
