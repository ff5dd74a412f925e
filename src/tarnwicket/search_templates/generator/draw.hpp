// The expression builder shared by `_build_random_signal_expression` and the
// generator's own loop (which adds per-function mirrors of the specs).
#pragma once

#include "generator/gen.hpp"

namespace tw::gen {

namespace rnd {
object choice_at(handle seq, Py_ssize_t& index);
}

object weighted_choice_at(handle items, handle cum, Py_ssize_t& index);

// A target depth: an int, a float, or any other object a host passes, which
// is then compared and decremented with the host's own operators.
struct Depth {
    bool is_float = false;
    long long i = 0;
    double f = 0.0;
    object other;  // set for a depth that is neither an exact int nor an exact float
    static Depth of(handle o);
    static Depth of_ll(long long v) {
        Depth d;
        d.i = v;
        return d;
    }
    bool le1() const;
    Depth minus1() const;
    object obj() const;
};

// What a drawn function contributes: its number of data inputs and the config
// child maps copied into each node.
struct FuncMirror {
    object name;  // the entry of func_names it was built for
    Py_ssize_t n_data = 0;
    std::vector<object> configs;
};

struct Builder {
    handle func_names, func_specs, func_weights, feat_names, feat_weights;
    const std::vector<FuncMirror>* mirror;  // parallel to func_names, or null
    bool* lists_shared = nullptr;  // set when a replaced hook is handed the lists
    object build(Depth d) const;
    object draw(handle items, handle cum, Py_ssize_t& index) const;
    object child(Depth d) const;
    // The rotation node for an already drawn `func` (index into the mirror, or -1).
    object rotation_node(handle func, Py_ssize_t index, Depth d) const;
};

// The generator's own hot path: raw references, cumulative weights mirrored
// into contiguous arrays. Falls back to Builder at any node where a host
// replaced `_weighted_choice` or `_build_random_signal_expression`.
// A cumulative-weight list as a contiguous array with a bucket index over its
// value range, so that bisect_left(cum, r) probes only a few entries.
struct CumIndex {
    std::vector<double> cum;
    std::vector<uint32_t> start;  // start[b]: first i whose bucket is >= b
    double scale = 0.0;           // buckets per unit of weight
    bool assign(handle list);     // false unless a list of floats
    Py_ssize_t bisect_left(double r) const;
    std::size_t bucket(double r) const {
        double x = r * scale;
        std::size_t last = start.size() - 2;
        return x < (double)last ? (std::size_t)x : last;
    }
};

struct FastTables {
    const Builder* generic;         // same tables as objects
    const CumIndex* func_cum;       // mirror of func_weights, or null
    const CumIndex* feat_cum;       // mirror of feat_weights, or null
    // A quiet build: the hooks were checked once for this graph, the collector
    // is paused, and random.random (called directly) and random.choice are the
    // host's own C code, so no Python code can run until something else is
    // called; then it is cleared and every node checks the hooks again.
    mutable PyObject* quiet = nullptr;
    PyObject* build(long long depth) const;  // new reference, or null with an error set
};

// The collector paused for the length of one quiet build (see FastTables):
// no finaliser can run Python code in the middle of it.
class CollectorPause {
public:
    CollectorPause() : was_enabled_(PyGC_Disable() == 1) {}
    ~CollectorPause() {
        if (was_enabled_ && may_touch_objects()) PyGC_Enable();
    }
    CollectorPause(const CollectorPause&) = delete;
    CollectorPause& operator=(const CollectorPause&) = delete;

private:
    bool was_enabled_;
};

// Mirrors of func_specs[name] for each name; false when a spec is not plain.
bool build_mirror(handle func_names, handle func_specs, std::vector<FuncMirror>& out);

}  // namespace tw::gen
