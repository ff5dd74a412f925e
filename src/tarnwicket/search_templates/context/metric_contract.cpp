#include "context/metric_contract.hpp"

#include "core/module.hpp"

namespace tw::metrics {

// The required metrics in order; the counts must be whole numbers.
struct Required {
    const char* name;
    bool is_count;
};
static const Required kRequired[] = {{"sharpe", false},   {"fitness", false},   {"returns", false},
                                     {"drawdown", false}, {"turnover", false},  {"margin", false},
                                     {"long_count", true}, {"short_count", true}, {"delta_exposure", false},
                                     {"max_weight", false}};

static const LateFn k_names("_REQUIRED_BACKTEST_METRICS");
static const LateFn k_counts("_REQUIRED_BACKTEST_COUNT_METRICS");
static const LateFn k_required_value("_required_backtest_metric_value");
static const LateFn k_invalid_reason("_invalid_backtest_metric_reason");
static const LateFn k_is_finite("_is_finite_number");
static const LateFn k_non_finite("_has_non_finite_number");
static const LateFn k_disallowed("_has_disallowed_mi_contract_field");

void register_required_metric_names() {
    object names = new_list();
    object counts = new_list();
    for (auto r : kRequired) {
        object name = steal(PyUnicode_InternFromString(r.name));  // attribute names are interned
        list_append(names, name);
        if (r.is_count) list_append(counts, name);
    }
    object tuple = steal(PyList_AsTuple(names.ptr()));
    object frozen = steal(PyFrozenSet_New(counts.ptr()));
    set_global(k_names.name(), tuple);
    set_global(k_counts.name(), frozen);
    keep_original(k_names.name(), tuple);
    keep_original(k_counts.name(), frozen);
}

object invalid_reason(handle attr) { return ftext({str_of("invalid_backtest_metric_"), attr}); }
static object invalid_reason_late(handle attr) { return k_invalid_reason.run<invalid_reason>(attr); }

// The value of one required metric, or the rejection reason. `sentinel` is the
// module's _MISSING_BACKTEST_METRIC, read by the caller.
static std::pair<object, object> required_value(handle bt_stats, handle attr, handle sentinel, bool is_count) {
    object value = get_attr_or(bt_stats, attr, sentinel);
    if (value.ptr() == sentinel.ptr()) return {none(), invalid_reason_late(attr)};
    if (is_bool(value) || !(is_int(value) || is_float(value))) return {none(), invalid_reason_late(attr)};
    double d;
    if (!try_double(value, d)) return {none(), invalid_reason_late(attr)};
    if (!std::isfinite(d)) return {none(), invalid_reason_late(attr)};
    if (is_count) {
        if (std::floor(d) != d) return {none(), invalid_reason_late(attr)};
        return {steal(PyLong_FromDouble(d)), none()};
    }
    if (PyFloat_CheckExact(value.ptr())) return {value, none()};  // float(x) is x
    return {float_of(d), none()};
}

std::pair<object, object> required_value(handle bt_stats, handle attr) {
    object sentinel = global(ID("_MISSING_BACKTEST_METRIC"));
    return required_value(bt_stats, attr, sentinel, contains(k_counts.current(), attr));
}

std::pair<object, object> collect_required(handle bt_stats) {
    object names = k_names.current();
    object sentinel = global(ID("_MISSING_BACKTEST_METRIC"));
    object counts = k_counts.current();
    object reader = k_required_value.replaced();
    object record = steal(check(new_presized_dict_raw(std::size(kRequired))));
    auto collect = [&](handle attr, auto is_count) -> object {
        object value, reason;
        if (reader) {
            object got = call(reader, {bt_stats, attr});
            value = getitem(got, int_of(0));
            reason = getitem(got, int_of(1));
        } else {
            std::tie(value, reason) = required_value(bt_stats, attr, sentinel, is_count());
        }
        if (!is_none(reason)) return reason;
        dict_set(record, attr, value);
        return object();
    };
    if (k_names.own(names) && k_counts.own(counts)) {
        // The module's own tuple and set: kRequired in order, counts known.
        for (std::size_t i = 0; i < std::size(kRequired); ++i) {
            handle attr = PyTuple_GET_ITEM(names.ptr(), i);
            if (object reason = collect(attr, [&] { return kRequired[i].is_count; })) return {none(), reason};
        }
        return {record, none()};
    }
    // `for attr in _REQUIRED_BACKTEST_METRICS`: each read of an attribute can run
    // code that changes a replaced, mutable list of names under us.
    object it = steal(PyObject_GetIter(names.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object attr = steal(raw);
        if (object reason = collect(attr, [&] { return contains(counts, attr); })) return {none(), reason};
    }
    if (PyErr_Occurred()) throw_py();
    return {record, none()};
}

// len(o), raising as len() does.
static Py_ssize_t length(handle o) {
    Py_ssize_t n = PyObject_Length(o.ptr());
    if (n < 0) throw_py();
    return n;
}

static object zero_list() {
    object l = new_list();
    list_append(l, float_of(0.0));
    return l;
}

object normalize_factor_pnl(handle value) {
    if (is_list(value) || is_tuple(value)) {
        if (length(value) == 0) return zero_list();
        return list_from(value);
    }
    object tolist = get_attr_or_none(value, ID("tolist"));
    if (PyCallable_Check(tolist.ptr())) {
        object result;
        try {
            result = call(tolist);
        } catch (py::error_already_set& e) {
            if (!ordinary(e)) throw;
            result = none();
        }
        if (is_list(result)) {
            if (length(result) == 0) return zero_list();
            return result;
        }
    }
    if (!is_bool(value) && (is_int(value) || is_float(value))) {
        object l = new_list();
        list_append(l, float_of(as_double(value)));
        return l;
    }
    return zero_list();
}

object normalize_per_column_stats(handle value) {
    if (is_dict(value)) return dict_copy(value);
    return new_dict();
}

bool is_finite_number(handle value) {
    PyTypeObject* t = Py_TYPE(value.ptr());
    if (t != &PyLong_Type && t != &PyFloat_Type) return false;
    if (t == &PyFloat_Type) return std::isfinite(PyFloat_AS_DOUBLE(value.ptr()));
    double d = PyLong_AsDouble(value.ptr());
    if (d == -1.0 && PyErr_Occurred()) {
        if (PyErr_ExceptionMatches(PyExc_OverflowError) || PyErr_ExceptionMatches(PyExc_ValueError)) {
            PyErr_Clear();
            return false;
        }
        throw_py();
    }
    return std::isfinite(d);
}

object is_pnl_mi_from_stats(handle bt_stats) {
    object v = get_attr_or_none(bt_stats, ID("is_pnl_mi"));
    if (!is_finite_number_late(v)) raise(PyExc_ValueError, "BacktestStats.is_pnl_mi must be a finite scalar number");
    return float_of(as_double(v));
}

namespace {

// `any(test(v) for v in iterable)`. A list is walked live, as Python walks it,
// so that a callback that shrinks it ends the walk early; dicts are handed in
// as a snapshot of their items or values.
template <class Test>
bool any_of(handle iterable, Test test) {
    object it = steal(PyObject_GetIter(iterable.ptr()));
    while (PyObject* raw = PyIter_Next(it.ptr())) {
        object item = steal(raw);
        if (test(item)) return true;
    }
    if (PyErr_Occurred()) throw_py();
    return false;
}

}  // namespace

bool has_non_finite_number(handle value) {
    PyTypeObject* t = Py_TYPE(value.ptr());
    if (t == &PyLong_Type || t == &PyFloat_Type) return !is_finite_number_late(value);
    if (!is_dict(value) && !is_list(value) && !is_tuple(value)) return false;
    RecursionGuard guard(" while checking numbers for finiteness");
    object items = is_dict(value) ? steal(PyDict_Values(value.ptr())) : borrow(value.ptr());
    return any_of(items, [](handle v) { return has_non_finite_number_late(v); });
}

static bool is_disallowed_mi_key(handle key) {
    static const char* bad[] = {"is_pnl_mi_values", "is_mi_values", "is_mi"};
    if (!is_str(key)) return false;
    for (auto b : bad)
        if (PyUnicode_CompareWithASCIIString(key.ptr(), b) == 0) return true;
    return false;
}

bool has_disallowed_mi_field(handle value) {
    if (!is_dict(value) && !is_list(value) && !is_tuple(value)) return false;
    RecursionGuard guard(" while looking for MI contract fields");
    if (is_list(value) || is_tuple(value))
        return any_of(value, [](handle v) { return has_disallowed_mi_field_late(v); });
    object items = steal(PyDict_Items(value.ptr()));
    return any_of(items, [](handle pair) {
        return is_disallowed_mi_key(PyTuple_GET_ITEM(pair.ptr(), 0)) ||
               has_disallowed_mi_field_late(PyTuple_GET_ITEM(pair.ptr(), 1));
    });
}

bool is_finite_number_late(handle value) {
    if (object f = k_is_finite.replaced()) return truthy(call(f, {value}));
    return is_finite_number(value);
}
bool has_non_finite_number_late(handle value) {
    if (object f = k_non_finite.replaced()) return truthy(call(f, {value}));
    return has_non_finite_number(value);
}
bool has_disallowed_mi_field_late(handle value) {
    if (object f = k_disallowed.replaced()) return truthy(call(f, {value}));
    return has_disallowed_mi_field(value);
}

// ---------------------------------------------------------------- bindings

static object pair(object a, object b) { return tuple_of({a, b}); }

object f_required_value(handle bt_stats, handle attr) {
    auto [v, r] = required_value(bt_stats, attr);
    return pair(v, r);
}
object f_collect(handle bt_stats) {
    auto [v, r] = collect_required(bt_stats);
    return pair(v, r);
}

}  // namespace tw::metrics

