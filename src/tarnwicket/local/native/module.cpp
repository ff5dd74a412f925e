// Binding of the native kernels and backtest: converts arrays at the edge and
// runs the work with the interpreter lock released, so evaluator threads run
// in parallel. No logic lives here.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>

#include "backtest.hpp"
#include "kernels.hpp"

namespace py = pybind11;
using native::In;
using native::Panel;
using native::Shape;

namespace {

using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
using GroupArray = py::array_t<long, py::array::c_style | py::array::forcecast>;

Shape shape_of(const py::array& a, const char* what) {
    if (a.ndim() != 2)
        throw std::invalid_argument(std::string(what) + " must be a (days, instruments) panel");
    return {static_cast<std::size_t>(a.shape(0)), static_cast<std::size_t>(a.shape(1))};
}

void expect_shape(const py::array& a, Shape want, const char* what) {
    const Shape got = shape_of(a, what);
    if (got.days != want.days || got.names != want.names)
        throw std::invalid_argument(std::string(what) + " has shape (" + std::to_string(got.days) + ", " +
                                    std::to_string(got.names) + "), expected (" +
                                    std::to_string(want.days) + ", " + std::to_string(want.names) + ")");
}

std::vector<double> copy_panel(const Array& a) { return {a.data(), a.data() + a.size()}; }

std::vector<double> copy_mask(const Array& a) {
    std::vector<double> out(static_cast<std::size_t>(a.size()));
    for (std::size_t k = 0; k < out.size(); ++k) out[k] = a.data()[k] != 0.0 ? 1.0 : 0.0;
    return out;
}

native::Groups copy_groups(const GroupArray& a, std::size_t names) {
    if (a.ndim() != 1 || static_cast<std::size_t>(a.size()) != names)
        throw std::invalid_argument("sector must give one group per instrument");
    std::vector<long> group(a.data(), a.data() + a.size());
    long count = 0;
    for (long g : group) {
        if (g < 0 || g > 1'000'000) throw std::invalid_argument("sector groups must be from 0 to 1000000");
        count = std::max(count, g + 1);
    }
    return native::index_groups(group, static_cast<std::size_t>(count));
}

// A NumPy array that owns `panel` without copying it.
py::array to_array(Panel&& panel, Shape shape) {
    auto owned = std::make_unique<Panel>(std::move(panel));
    double* data = owned->data();
    py::capsule owner(owned.get(), [](void* p) { delete static_cast<Panel*>(p); });
    owned.release();
    const auto rows = static_cast<py::ssize_t>(shape.days), cols = static_cast<py::ssize_t>(shape.names);
    return py::array_t<double>({rows, cols}, {cols * 8, py::ssize_t{8}}, data, owner);
}

py::array to_vector(std::vector<double>&& values) {
    auto owned = std::make_unique<std::vector<double>>(std::move(values));
    double* data = owned->data();
    const auto size = static_cast<py::ssize_t>(owned->size());
    py::capsule owner(owned.get(), [](void* p) { delete static_cast<std::vector<double>*>(p); });
    owned.release();
    return py::array_t<double>({size}, data, owner);
}

// Re-takes the interpreter lock given up by `PyEval_SaveThread`. Once the
// interpreter is finalising, the host ends a thread that asks for the lock by
// unwinding its stack. The frames above would then drop references without the
// lock, and the first destructor on the way ends the whole process; so the
// thread stays here, holding nothing, until the process is gone. (That unwind
// is the only thing the call can throw; it carries no object to bind to.)
void retake_lock(PyThreadState* saved) {
    try {
        PyEval_RestoreThread(saved);
    } catch (...) {
        for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
    }
}

// Runs `work`, which must not touch Python, with the interpreter lock released.
// Since the work never calls the host, the host cannot end the thread inside
// it: what it throws is our own error, carried past the re-take and rethrown.
template <class Work>
void without_lock(Work&& work) {
    PyThreadState* saved = PyEval_SaveThread();
    std::exception_ptr failure;
    try {
        work();
    } catch (...) {
        failure = std::current_exception();
    }
    retake_lock(saved);
    if (failure) std::rethrow_exception(failure);
}

using Step = std::tuple<std::string, std::vector<std::size_t>, std::vector<double>>;

class Evaluator {
public:
    Evaluator(const GroupArray& sector, const Array& liquidity_rank)
        : shape_(shape_of(liquidity_rank, "liquidity_rank")) {
        env_.sectors = copy_groups(sector, shape_.names);
        env_.liquidity_rank = copy_panel(liquidity_rank);
    }

    // Evaluate `steps` in order. Each step names an operator, the indices of
    // its data inputs among `inputs` followed by the results of the earlier
    // steps, and its config values; the results of all steps are returned.
    py::list run(const std::vector<py::object>& inputs, const std::vector<Step>& steps) const {
        std::vector<Array> held;
        std::vector<In> views;
        for (const py::object& item : inputs) {
            Array a = Array::ensure(item);
            if (!a) throw std::invalid_argument("inputs must be panels of numbers");
            expect_shape(a, shape_, "an input");
            views.emplace_back(a.data(), static_cast<std::size_t>(a.size()));
            held.push_back(std::move(a));
        }
        std::vector<const native::Operator*> ops;
        for (std::size_t s = 0; s < steps.size(); ++s) {
            const auto& [name, data, config] = steps[s];
            const native::Operator* op = native::find_operator(name);
            if (!op) throw std::invalid_argument("unknown operator " + name);
            if (data.size() != static_cast<std::size_t>(op->n_data) ||
                config.size() != static_cast<std::size_t>(op->n_config))
                throw std::invalid_argument(name + " takes " + std::to_string(op->n_data) + " input(s) and " +
                                            std::to_string(op->n_config) + " config value(s)");
            for (std::size_t index : data)
                if (index >= views.size() + s) throw std::invalid_argument(name + ": input index out of range");
            ops.push_back(op);
        }
        std::vector<Panel> results;
        without_lock([&] {
            results.reserve(steps.size());
            std::vector<In> args;
            for (std::size_t s = 0; s < steps.size(); ++s) {
                const auto& [name, data, config] = steps[s];
                args.clear();
                for (std::size_t index : data)
                    args.push_back(index < views.size() ? views[index] : In(results[index - views.size()]));
                Panel out = ops[s]->run(env_, shape_, args.data(), config.data());
                results.push_back(std::move(out));
            }
        });
        py::list out;
        for (Panel& p : results) out.append(to_array(std::move(p), shape_));
        return out;
    }

private:
    Shape shape_;
    native::Env env_;
};

class Backtester {
public:
    Backtester(const Array& tradable, const Array& returns, const Array& adv, const Array& illiquid,
               const Array& beta, const GroupArray& sector,
               const Array& factor_returns, double max_position, double min_names, double book_size,
               double cost_bps, int clip_rounds) {
        market_.shape = shape_of(returns, "returns");
        for (const Array* a : {&tradable, &adv, &illiquid, &beta}) expect_shape(*a, market_.shape, "a market array");
        market_.sectors = copy_groups(sector, market_.shape.names);
        if (factor_returns.ndim() != 2 || static_cast<std::size_t>(factor_returns.shape(0)) != market_.shape.days ||
            static_cast<std::size_t>(factor_returns.shape(1)) != market_.sectors.count() + 1)
            throw std::invalid_argument("factor_returns must be (days, 1 + groups)");
        market_.tradable = copy_mask(tradable);
        market_.returns = copy_panel(returns);
        market_.adv = copy_panel(adv);
        market_.illiquid = copy_mask(illiquid);
        market_.beta = copy_panel(beta);
        market_.factor_returns = copy_panel(factor_returns);
        native::derive(market_);
        settings_ = {max_position, min_names, book_size, cost_bps, clip_rounds};
    }

    py::dict run(const Array& signal) const {
        expect_shape(signal, market_.shape, "the signal");
        native::Figures f;
        without_lock([&] {
            f = native::backtest(In(signal.data(), static_cast<std::size_t>(signal.size())), market_, settings_);
        });
        py::dict d;
        d["has_positions"] = f.has_positions;
        d["pnl"] = to_vector(std::move(f.pnl));
        for (auto [key, value] : {std::pair{"sharpe", f.sharpe}, {"fitness", f.fitness}, {"returns", f.returns},
                                  {"drawdown", f.drawdown}, {"turnover", f.turnover}, {"margin", f.margin},
                                  {"long_count", f.long_count}, {"short_count", f.short_count},
                                  {"delta_exposure", f.delta_exposure}, {"max_weight", f.max_weight},
                                  {"net_sharpe", f.net_sharpe}, {"net_returns", f.net_returns},
                                  {"net_drawdown", f.net_drawdown}, {"is_pnl_mi", f.is_pnl_mi},
                                  {"effective_positions", f.effective_positions}, {"coverage", f.coverage},
                                  {"participation", f.participation}, {"illiquid_share", f.illiquid_share}})
            d[key] = value;
        d["factor_pnl"] = f.factor_pnl;
        return d;
    }

private:
    native::Market market_;
    native::Settings settings_;
};

}  // namespace

PYBIND11_MODULE(_native, m) {
    m.doc() = "Native kernels of the local evaluator; they run without holding the interpreter lock.";
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const std::invalid_argument& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
        }
    });
    py::class_<Evaluator>(m, "Evaluator", "Runs programs of vocabulary operators over panels of one shape.")
        .def(py::init<const GroupArray&, const Array&>(),
             py::arg("sector"), py::arg("liquidity_rank"))
        .def("run", &Evaluator::run, py::arg("inputs"), py::arg("steps"),
             "Evaluate steps (operator, input indices, config values) in order; return their results.");
    py::class_<Backtester>(m, "Backtester", "The daily long-short backtest over one market.")
        .def(py::init<const Array&, const Array&, const Array&, const Array&, const Array&,
                      const GroupArray&, const Array&, double,
                      double, double, double, int>(),
             py::arg("tradable"), py::arg("returns"), py::arg("adv"), py::arg("illiquid"), py::arg("beta"),
             py::arg("sector"), py::arg("factor_returns"), py::arg("max_position"), py::arg("min_names"),
             py::arg("book_size"), py::arg("cost_bps"), py::arg("clip_rounds"))
        .def("run", &Backtester::run, py::arg("signal"), "The backtest figures of one signal panel.");
}
