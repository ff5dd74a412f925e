// Config parameter resolution: each config parameter of a rotation becomes one
// literal child, or a reason why no safe literal exists.
#include "generator/gen.hpp"

namespace tw::gen {

static object fmt(handle o) { return steal(PyObject_Format(o.ptr(), nullptr)); }
static object tuple5(bool a, handle b, bool c, handle d, bool e) {
    return tuple_of({bool_of(a), b, bool_of(c), d, bool_of(e)});
}

object numeric_bounds(handle param) {
    bool has_min = has_value(param, ID("min"));
    bool has_max = has_value(param, ID("max"));
    object min_value = none(), max_value = none();
    object* slots[2] = {&min_value, &max_value};
    bool present[2] = {has_min, has_max};
    handle keys[2] = {ID("min"), ID("max")};
    for (int i = 0; i < 2; ++i) {
        if (!present[i]) continue;
        object raw = getitem(param, keys[i]);
        if (is_bool(raw)) return tuple5(has_min, min_value, has_max, max_value, false);
        double d;
        if (!try_double(raw, d)) return tuple5(has_min, min_value, has_max, max_value, false);
        *slots[i] = float_of(d);
        if (!std::isfinite(d)) return tuple5(has_min, min_value, has_max, max_value, false);
    }
    if (has_min && has_max && PyFloat_AS_DOUBLE(min_value.ptr()) > PyFloat_AS_DOUBLE(max_value.ptr()))
        return tuple5(has_min, min_value, has_max, max_value, false);
    return tuple5(has_min, min_value, has_max, max_value, true);
}

object numeric_range_label(handle has_min, handle min_value, handle has_max, handle max_value) {
    object lower = truthy(has_min) ? fmt(min_value) : str_of("-inf");
    object upper = truthy(has_max) ? fmt(max_value) : str_of("inf");
    return msg("[%U, %U]", lower.ptr(), upper.ptr());
}

// has_min, min_value, has_max, max_value, bounds_valid = _random_weighted_numeric_bounds(param)
static std::vector<object> bounds_of(handle param) {
    return unpack(via(hooks::numeric_bounds, {param}, [&] { return numeric_bounds(param); }), 5);
}

object numeric_bounds_reason(handle param, handle value) {
    double nv;
    if (!try_double(value, nv)) return str_of("has non-numeric default/range");
    if (!std::isfinite(nv)) return str_of("has non-finite numeric default/range");
    std::vector<object> b = bounds_of(param);
    if (!truthy(b[4])) return str_of("has invalid numeric range metadata");
    auto outside = [&]() {
        object label = via(hooks::numeric_range_label, {b[0], b[1], b[2], b[3]},
                           [&] { return numeric_range_label(b[0], b[1], b[2], b[3]); });
        return msg("default %R outside declared range %U", value.ptr(), fmt(label).ptr());
    };
    object numeric_value = float_of(nv);
    if (truthy(b[0]) && cmp(numeric_value, b[1], Py_LT)) return outside();
    if (truthy(b[2]) && cmp(numeric_value, b[3], Py_GT)) return outside();
    return none();
}

static object bounds_reason_late(handle param, handle value) {
    return via(hooks::numeric_bounds_reason, {param, value}, [&] { return numeric_bounds_reason(param, value); });
}

object config_value_reason(handle param_name, handle value, bool integer) {
    double nv;
    if (!try_double(value, nv)) return msg("config param %R has non-numeric emitted value", param_name.ptr());
    if (!std::isfinite(nv)) return msg("config param %R has non-finite emitted value", param_name.ptr());
    object limit = integer ? float_of(as_double(global(ID("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT"))))
                           : global(ID("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT"));
    object magnitude = float_of(std::fabs(nv));
    if (cmp(magnitude, limit, Py_GT))
        return msg("config param %R emitted value %R exceeds hard config bound +/-%R", param_name.ptr(), value.ptr(),
                   limit.ptr());
    return none();
}

object window_bounded_param(handle param, handle window_limit) {
    object bounded = dict_copy(param);
    if (is_none(window_limit)) return bounded;
    if (!has_value(bounded, ID("min"))) dict_set(bounded, ID("min"), int_of(1));
    if (!has_value(bounded, ID("max"))) {
        dict_set(bounded, ID("max"), window_limit);
    } else {
        PyObject* existing = PyNumber_Long(get(bounded, ID("max")).ptr());
        if (!existing) {
            if (!(PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
                  PyErr_ExceptionMatches(PyExc_OverflowError)))
                throw_py();
            PyErr_Clear();
            dict_set(bounded, ID("max"), window_limit);
        } else {
            object e = steal(existing);
            dict_set(bounded, ID("max"), cmp(window_limit, e, Py_LT) ? window_limit : handle(e));
        }
    }
    return bounded;
}

object window_budget_reason(handle param_name, handle value, handle window_limit) {
    if (is_none(window_limit)) return none();
    if (cmp(value, window_limit, Py_GT))
        return msg("config param %R window %R exceeds per-node lookback budget %R", param_name.ptr(), value.ptr(),
                   window_limit.ptr());
    return none();
}

object numeric_default(handle param, bool integer) {
    std::vector<object> b = bounds_of(param);
    if (!truthy(b[4])) return none();
    bool has_min = truthy(b[0]), has_max = truthy(b[2]);
    if (!has_min && !has_max) return none();
    object min_value = b[1], max_value = b[3];
    object value;
    if (has_min && has_max) {
        object sum = steal(PyNumber_Add(min_value.ptr(), max_value.ptr()));
        object two = float_of(2.0);
        value = steal(PyNumber_TrueDivide(sum.ptr(), two.ptr()));
    } else {
        value = has_min ? min_value : max_value;
    }
    if (integer) {
        object zero = int_of(0), one = int_of(1);
        try {
            value = py_int(call(get_attr(import_module("builtins"), ID("round")), {value}));
            if (cmp(value, zero, Py_LE)) value = one;
            if (has_min && cmp(value, min_value, Py_LT)) {
                value = py_int(min_value);
                if (cmp(value, min_value, Py_LT)) value = steal(PyNumber_Add(value.ptr(), one.ptr()));
            }
            if (has_max && cmp(value, max_value, Py_GT)) {
                value = py_int(max_value);
                if (cmp(value, max_value, Py_GT)) value = steal(PyNumber_Subtract(value.ptr(), one.ptr()));
            }
        } catch (py::error_already_set& e) {
            if (matches(e, PyExc_ValueError) || matches(e, PyExc_OverflowError)) return none();
            throw;
        }
        if (cmp(value, zero, Py_LE)) return none();
    }
    return is_none(bounds_reason_late(param, value)) ? value : none();
}

object first_choice(handle param) {
    for (handle key : {ID("choices"), ID("options"), ID("enum")}) {
        object v = get(param, key);
        if ((is_list(v) || is_tuple(v)) && truthy(v)) return getitem(v, int_of(0));
    }
    return none();
}

static bool positive_int(handle value) {
    if (is_bool(value) || !is_int(value)) return false;
    object zero = int_of(0);
    return cmp(value, zero, Py_GT);
}

std::pair<object, object> config_child(handle, handle param, handle window_limit) {
    object param_type = get(param, ID("type"));
    bool has_default = has_value(param, ID("default"));
    object empty = str_of("");
    object param_name = dict_get(param, ID("name"), empty);
    handle pn = param_name;
    auto fail = [](object reason) { return std::pair<object, object>{none(), reason}; };
    // "config param {param_name!r} {reason}"
    auto prefixed = [&](handle reason) { return fail(msg("config param %R %U", pn.ptr(), fmt(reason).ptr())); };
    auto no_safe = [&](const char* type) {
        return fail(msg("config param %R has no safe %s default/range", pn.ptr(), type));
    };
    auto budget_reason = [&](handle value) {
        return via(hooks::window_budget_reason, {pn, value, window_limit},
                   [&] { return window_budget_reason(pn, value, window_limit); });
    };
    // _random_weighted_config_value_reason(param_name, value, integer=...)
    auto value_reason = [&](handle value, bool integer) {
        if (object f = hooks::replaced(hooks::config_value_reason))
            return call_kw(f, {pn, value}, {{ID("integer"), bool_of(integer)}});
        return config_value_reason(pn, value, integer);
    };
    // _random_weighted_numeric_default(p, integer=...)
    auto numeric_default_late = [](handle p, bool integer) {
        if (object f = hooks::replaced(hooks::numeric_default)) return call_kw(f, {p}, {{ID("integer"), bool_of(integer)}});
        return numeric_default(p, integer);
    };
    auto child = [](handle type, handle node) {
        object d = new_dict();
        dict_set(d, ID("type"), type);
        dict_set(d, ID("node"), node);
        return std::pair<object, object>{d, none()};
    };

    if (eq_str(param_type, "int")) {
        object bounded = is_none(window_limit) ? borrow(param.ptr())
                                               : via(hooks::window_bounded_param, {param, window_limit},
                                                     [&] { return window_bounded_param(param, window_limit); });
        object value;
        if (has_default) {
            value = get(param, ID("default"));
            if (!positive_int(value)) return no_safe("int");
            object br = bounds_reason_late(param, value);
            if (!is_none(br)) return prefixed(br);
            object wr = budget_reason(value);
            if (!is_none(wr)) return {none(), wr};
        } else {
            value = numeric_default_late(bounded, true);
        }
        if (!positive_int(value)) return no_safe("int");
        object vr = value_reason(value, true);
        if (!is_none(vr)) return {none(), vr};
        object wr = budget_reason(value);
        if (!is_none(wr)) return {none(), wr};
        return child(ID("int"), value);
    }
    if (eq_str(param_type, "float")) {
        auto numeric = [](handle v) { return !is_bool(v) && (is_int(v) || is_float(v)); };
        object value;
        if (has_default) {
            value = get(param, ID("default"));
            if (!numeric(value)) return no_safe("float");
            object br = bounds_reason_late(param, value);
            if (!is_none(br)) return prefixed(br);
        } else {
            value = numeric_default_late(param, false);
        }
        if (!numeric(value)) return no_safe("float");
        object vr = value_reason(value, false);
        if (!is_none(vr)) return {none(), vr};
        return child(ID("float"), float_of(as_double(value)));
    }
    if (eq_str(param_type, "bool")) {
        bool v = has_default && truthy(get(param, ID("default")));
        return child(ID("bool"), bool_of(v));
    }
    if (eq_str(param_type, "string")) {
        object value = has_default ? get(param, ID("default"))
                                   : via(hooks::first_choice, {param}, [&] { return first_choice(param); });
        if (!is_nonempty_str(value)) return no_safe("string");
        return child(ID("string"), value);
    }
    return fail(msg("unsupported config param type %R", param_type.ptr()));
}

}  // namespace tw::gen
