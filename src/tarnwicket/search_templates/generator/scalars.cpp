// Scalar coercers, the generator's limits and the era-derived budgets. Every
// number from outside passes through one of these and degrades to a default.
#include "generator/gen.hpp"

#include <climits>
#include <optional>

namespace tw::gen {


long long clamp_ll(handle o) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(o.ptr(), &overflow);
    if (overflow > 0) return LLONG_MAX;
    if (overflow < 0) return LLONG_MIN;
    if (v == -1 && PyErr_Occurred()) throw_py();
    return v;
}

static long long global_ll(handle name) {
    object v = global(name);
    object i = py_int(v);
    return clamp_ll(i);
}

Limits Limits::read() {
    Limits l;
    l.default_max_node_count = global_ll(ID("_RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT"));
    l.hard_max_node_count = global_ll(ID("_RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT"));
    l.default_buffer_minutes = global_ll(ID("_RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES"));
    l.max_recursive_depth = global_ll(ID("_RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH"));
    l.max_analytics_rows = global_ll(ID("_RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS"));
    l.max_names_per_row = global_ll(ID("_RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW"));
    l.max_unique_names = global_ll(ID("_RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES"));
    l.max_analytics_weight = global_ll(ID("_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT"));
    l.max_abs_yield_rate = as_double(global(ID("_RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE")));
    return l;
}

// ---------------------------------------------------------------- coercers

bool is_finite_number(handle value) {
    if (PyFloat_CheckExact(value.ptr())) return std::isfinite(PyFloat_AS_DOUBLE(value.ptr()));
    if (PyLong_CheckExact(value.ptr())) return true;
    // value == value and value != inf and value != -inf, with the host's comparisons
    object eq = steal(PyObject_RichCompare(value.ptr(), value.ptr(), Py_EQ));
    if (!truthy(eq)) return false;
    object inf = float_of(HUGE_VAL), ninf = float_of(-HUGE_VAL);
    object ne1 = steal(PyObject_RichCompare(value.ptr(), inf.ptr(), Py_NE));
    if (!truthy(ne1)) return false;
    object ne2 = steal(PyObject_RichCompare(value.ptr(), ninf.ptr(), Py_NE));
    return truthy(ne2);
}

bool rw_float_d(handle value, double& out) {
    if (!try_double(value, out)) return false;
    return std::isfinite(out);
}

object rw_float(handle value, handle dflt) {
    double d;
    if (!rw_float_d(value, d)) return borrow(dflt.ptr());
    if (PyFloat_CheckExact(value.ptr())) return borrow(value.ptr());
    return float_of(d);
}

static bool is_conversion_error() {
    return PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
           PyErr_ExceptionMatches(PyExc_OverflowError);
}

object rw_int(handle value, handle dflt) {
    if (is_bool(value)) return borrow(dflt.ptr());
    if (is_int(value)) return borrow(value.ptr());
    PyObject* r = PyNumber_Long(value.ptr());
    if (!r) {
        if (!is_conversion_error()) throw_py();
        PyErr_Clear();
        return borrow(dflt.ptr());
    }
    return steal(r);
}

object rw_positive_int(handle value, handle dflt) {
    object r = int_late(value, dflt);
    object zero = int_of(0);
    if (cmp(r, zero, Py_LE)) return borrow(dflt.ptr());
    return r;
}

double safe_yield_rate_d(double rate, double max_abs) {
    if (!std::isfinite(rate)) return 0.0;
    if (rate > max_abs) return max_abs;
    if (rate < -1.0) return -1.0;
    return rate;
}

double safe_yield_rate(handle value, double max_abs) {
    double r;
    if (hooks::is_own(hooks::rw_float)) {
        if (!rw_float_d(value, r)) return 0.0;
        return safe_yield_rate_d(r, max_abs);
    }
    // rate = _random_weighted_float(value, 0.0), clamped with the host's comparisons
    object zero_f = float_of(0.0);
    object rate = float_late(value, zero_f);
    object top = float_of(max_abs), bottom = float_of(-1.0);
    if (cmp(rate, top, Py_GT)) return max_abs;
    if (cmp(rate, bottom, Py_LT)) return -1.0;
    return as_double(rate);
}

object int_late(handle value, handle dflt) {
    return via(hooks::rw_int, {value, dflt}, [&] { return rw_int(value, dflt); });
}
object float_late(handle value, handle dflt) {
    return via(hooks::rw_float, {value, dflt}, [&] { return rw_float(value, dflt); });
}
object positive_int_late(handle value, handle dflt) {
    return via(hooks::rw_positive_int, {value, dflt}, [&] { return rw_positive_int(value, dflt); });
}
object safe_yield_rate_late_obj(handle value, const Limits& lim) {
    return via(hooks::safe_yield_rate, {value}, [&] { return float_of(safe_yield_rate(value, lim.max_abs_yield_rate)); });
}
double safe_yield_rate_late(handle value, const Limits& lim) {
    if (object f = hooks::replaced(hooks::safe_yield_rate)) return as_double(call(f, {value}));
    return safe_yield_rate(value, lim.max_abs_yield_rate);
}

// ---------------------------------------------------------------- era values

object era_value(handle ctx, handle name, handle dflt) {
    object candidates[2] = {get_attr_or_none(ctx, ID("era_config")), get_attr_or_none(ctx, ID("_era_config"))};
    for (auto& c : candidates) {
        if (is_none(c)) continue;
        PyObject* r = nullptr;
        int rc = lookup_attr(c, name, &r);
        if (rc < 0) throw_py();
        if (rc == 1) return steal(r);
    }
    return borrow(dflt.ptr());
}

static object era_value_late(handle ctx, handle name, handle dflt) {
    return via(hooks::era_value, {ctx, name, dflt}, [&] { return era_value(ctx, name, dflt); });
}

object node_limit(handle ctx) {
    object dflt = global(ID("_RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT"));
    object value = positive_int_late(era_value_late(ctx, ID("max_node_count"), dflt), dflt);
    object hard = global(ID("_RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT"));
    return cmp(hard, value, Py_LT) ? hard : value;  // min(value, hard)
}

object buffer_duration_limit(handle ctx) {
    object dflt = global(ID("_RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES"));
    return positive_int_late(era_value_late(ctx, ID("buffer_duration_minutes"), dflt), dflt);
}

object window_limit(handle ctx, handle max_depth) {
    object buffer = via(hooks::buffer_duration_limit, {ctx}, [&] { return buffer_duration_limit(ctx); });
    object one = int_of(1);
    object divisor = positive_int_late(max_depth, one);
    object q = steal(PyNumber_FloorDivide(buffer.ptr(), divisor.ptr()));
    return cmp(one, q, Py_GT) ? one : q;  // max(q, 1)
}

// ---------------------------------------------------------------- node budgets

static Py_ssize_t len_of_key(handle spec, handle key) {
    object empty = new_list();
    object v = dict_get(spec, key, empty);
    Py_ssize_t n = PyObject_Size(v.ptr());
    if (n < 0) throw_py();
    return n;
}

object min_node_count(handle spec) {
    Py_ssize_t data = len_of_key(spec, ID("data_params"));
    Py_ssize_t config = len_of_key(spec, ID("config_children"));
    long long n;
    if (!__builtin_add_overflow((long long)data, (long long)config, &n) && !__builtin_add_overflow(n, 1LL, &n))
        return int_of(n);
    // lengths near sys.maxsize: the exact sum, as the host's ints give it
    object one = int_of(1), od = int_of(data), oc = int_of(config);
    object s = steal(PyNumber_Add(one.ptr(), od.ptr()));
    return steal(PyNumber_Add(s.ptr(), oc.ptr()));
}

object rotations_within_node_budget(handle rotations, handle node_limit) {
    object kept = new_list();
    object it = steal(PyObject_GetIter(rotations.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object spec = steal(p);
        object min_count = via(hooks::min_node_count, {spec}, [&] { return min_node_count(spec); });
        if (cmp(min_count, node_limit, Py_GT)) {
            object unknown = str_of("<unknown>");
            object name = dict_get(spec, ID("name"), unknown);
            log_info("random_weighted excluded %s from SIGNAL generation: minimum node count %r exceeds node budget %r",
                     {name, min_count, node_limit});
        } else {
            list_append(kept, spec);
        }
    }
    if (PyErr_Occurred()) throw_py();
    return kept;
}

// Largest data and config child counts over the rotations; ValueError on none.
static std::pair<long long, long long> max_children(handle rotations) {
    long long md = -1, mc = -1;
    object it = steal(PyObject_GetIter(rotations.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object spec = steal(p);
        md = std::max<long long>(md, len_of_key(spec, ID("data_params")));
        mc = std::max<long long>(mc, len_of_key(spec, ID("config_children")));
    }
    if (PyErr_Occurred()) throw_py();
    if (md < 0) raise(PyExc_ValueError, "max() arg is an empty sequence");
    return {md, mc};
}

// Worst case with known maxima (both >= 0). The count never decreases from one
// level to the next, so where it grows by a constant step (at most one data
// child) the count at `depth` alone tells whether any level exceeded the limit.
// `depth_obj`, when given, is `depth` as an int before clamping.
static object worst_case_with(long long md, long long mc, long long depth, handle node_limit,
                              handle depth_obj = handle()) {
    if (depth <= 1) return int_of(1);
    object one = int_of(1);
    // An exact int limit within [LLONG_MIN, 2**62] keeps every count compared in int64.
    int overflow = 0;
    bool exact = PyLong_CheckExact(node_limit.ptr()) || PyBool_Check(node_limit.ptr());
    long long limit = exact ? PyLong_AsLongLongAndOverflow(node_limit.ptr(), &overflow) : 0;
    if (exact && !overflow && limit <= (1LL << 62)) {
        long long count = 1;
        if (md <= 1) {
            // 1 + (depth - 1) * (1 + mc) with one data child, 1 + mc with none
            long long step;
            bool over = __builtin_add_overflow(mc, 1LL, &step);
            if (md == 1)
                over = over || __builtin_mul_overflow(depth - 1, step, &count) || __builtin_add_overflow(count, 1LL, &count);
            else
                count = step;
            if (over || count > limit)
                return int_of(limit + 1);
            return int_of(count);
        }
        for (long long level = 2; level <= depth; ++level) {
            // past the limit as soon as any term leaves int64, since the limit is in it
            if (__builtin_mul_overflow(md, count, &count) || __builtin_add_overflow(count, mc, &count) ||
                __builtin_add_overflow(count, 1LL, &count) || count > limit)
                return int_of(limit + 1);
        }
        return int_of(count);
    }
    object count = one;
    object omc = int_of(mc), omd = int_of(md);
    object step = steal(PyNumber_Add(one.ptr(), omc.ptr()));
    if (md <= 1 && exact) {
        if (md == 1) {
            object levels = depth_obj ? steal(PyNumber_Subtract(depth_obj.ptr(), one.ptr())) : int_of(depth - 1);
            object grown = steal(PyNumber_Multiply(levels.ptr(), step.ptr()));
            count = steal(PyNumber_Add(one.ptr(), grown.ptr()));
        } else {
            count = step;
        }
        if (cmp(count, node_limit, Py_GT)) return steal(PyNumber_Add(node_limit.ptr(), one.ptr()));
        return count;
    }
    for (long long level = 2; level <= depth; ++level) {
        object prod = steal(PyNumber_Multiply(omd.ptr(), count.ptr()));
        count = steal(PyNumber_Add(step.ptr(), prod.ptr()));
        if (cmp(count, node_limit, Py_GT)) return steal(PyNumber_Add(node_limit.ptr(), one.ptr()));
        if (level == depth) break;  // depth may be LLONG_MAX
    }
    return count;
}

static long long depth_ll(handle depth) {
    object i = steal(PyNumber_Index(depth.ptr()));
    return clamp_ll(i);
}

object worst_case_node_count(handle rotations, handle depth, handle node_limit) {
    object one = int_of(1);
    if (cmp(depth, one, Py_LE)) return one;
    auto [md, mc] = max_children(rotations);
    object index = steal(PyNumber_Index(depth.ptr()));
    return worst_case_with(md, mc, clamp_ll(index), node_limit, index);
}

object max_depth_within_node_budget(handle rotations, handle requested_depth, handle node_limit) {
    object one = int_of(1), two = int_of(2);
    if (cmp(node_limit, two, Py_LT) || !truthy(rotations)) return one;
    object max_rec = global(ID("_RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH"));
    // min(requested_depth, node_limit, max_rec)
    object best = borrow(requested_depth.ptr());
    if (cmp(node_limit, best, Py_LT)) best = borrow(node_limit.ptr());
    if (cmp(max_rec, best, Py_LT)) best = max_rec;
    long long max_candidate = depth_ll(best);
    std::optional<std::pair<long long, long long>> children;  // taken once, at the first own count
    long long max_depth = 1;
    for (long long depth = 2; depth <= max_candidate; ++depth) {
        object count;
        if (object f = hooks::replaced(hooks::worst_case_node_count)) {
            count = call(f, {rotations, int_of(depth), node_limit});
        } else {
            if (!children) children = max_children(rotations);
            count = worst_case_with(children->first, children->second, depth, node_limit);
        }
        if (cmp(count, node_limit, Py_GT)) break;
        max_depth = depth;
        if (depth == max_candidate) break;  // max_candidate may be LLONG_MAX
    }
    return int_of(max_depth);
}

}  // namespace tw::gen
