// Rotation safety screening: which vocabulary functions the generator may use,
// as compact specs with their data inputs and ready-made config children.
#include "generator/gen.hpp"

namespace tw::gen {


object param_dict(handle raw_param, handle default_name) {
    object param;
    if (is_dict(raw_param)) {
        param = dict_copy(raw_param);
    } else if (is_str(raw_param)) {
        param = new_dict();
        dict_set(param, ID("name"), default_name);
        dict_set(param, ID("type"), raw_param);
    } else {
        param = new_dict();
        for (handle key : {ID("name"), ID("type"), ID("min"), ID("max"), ID("default"), ID("variadic"), ID("choices"),
                           ID("options"), ID("enum")}) {
            PyObject* v = nullptr;
            int rc = lookup_attr(raw_param, key, &v);
            if (rc < 0) throw_py();
            if (rc == 1) dict_set(param, key, steal(v));
        }
    }
    if (PyDict_GET_SIZE(param.ptr()) == 0) return none();
    if (!is_nonempty_str(get(param, ID("name")))) dict_set(param, ID("name"), default_name);
    if (check_int(PyDict_Contains(param.ptr(), ID("type").ptr())) == 0) return none();
    if (truthy(get(param, ID("variadic")))) return none();
    return param;
}

std::pair<object, object> schema_params(handle schema, handle node_limit) {
    object child_limit = none();
    if (!is_none(node_limit)) {
        object one = int_of(1);
        object less = steal(PyNumber_Subtract(node_limit.ptr(), one.ptr()));
        child_limit = cmp(less, one, Py_GT) ? less : one;  // max(1, node_limit - 1)
    }
    auto fail = [](object reason) { return std::pair<object, object>{new_list(), reason}; };
    if (is_none(schema)) return fail(str_of("rotation metadata missing param_schema"));
    bool is_map = is_dict(schema);
    if (!is_map && !is_list(schema) && !is_tuple(schema)) {
        object type_name = get_attr(handle(reinterpret_cast<PyObject*>(Py_TYPE(schema.ptr()))), ID("__name__"));
        return fail(msg("unsupported param_schema container %S", type_name.ptr()));
    }
    Py_ssize_t size = PyObject_Size(schema.ptr());
    if (size < 0) throw_py();
    if (size == 0) return fail(str_of("rotation metadata param_schema is empty"));
    if (!is_none(child_limit)) {
        object osize = int_of(size);
        if (cmp(osize, child_limit, Py_GT))
            return fail(msg("param_schema size %zd exceeds node budget child limit %R", size, child_limit.ptr()));
    }
    // Walked as the host iterates it: a schema changed by a callback of an entry
    // ends early (a list) or raises (a map), never reads a stale entry.
    object params = new_list();
    object it = steal(PyObject_GetIter(is_map ? call_method(schema, ID("items")).ptr() : schema.ptr()));
    for (Py_ssize_t idx = 0;; ++idx) {
        PyObject* p = PyIter_Next(it.ptr());
        if (!p) break;
        object raw = steal(p);
        object param;
        if (is_map) {
            auto kv = unpack(raw, 2);
            param = via(hooks::param_dict, {kv[1], kv[0]}, [&] { return param_dict(kv[1], kv[0]); });
            if (is_none(param)) return fail(msg("unsupported param_schema entry for %R", kv[0].ptr()));
        } else {
            object default_name = msg("param_%zd", idx);
            param = via(hooks::param_dict, {raw, default_name}, [&] { return param_dict(raw, default_name); });
            if (is_none(param)) return fail(msg("unsupported param_schema entry at index %zd", idx));
        }
        list_append(params, param);
    }
    if (PyErr_Occurred()) throw_py();
    return {params, none()};
}

std::pair<object, object> declared_arity(handle fn) {
    if (!is_dict(fn)) return {none(), none()};
    object value = get(fn, ID("arity"));
    if (is_none(value)) return {none(), none()};
    object arity = int_late(value, Py_None);
    object one = int_of(1);
    if (is_none(arity) || cmp(arity, one, Py_LT)) return {none(), msg("invalid arity metadata %R", value.ptr())};
    return {arity, none()};
}

static object unsafe_result(handle reason) {
    object d = new_dict();
    dict_set(d, ID("safe"), Py_False);
    dict_set(d, ID("reason"), reason);
    return d;
}

object rotation_schema(handle fn, handle window_limit, handle node_limit) {
    object unknown = str_of("<unknown>");
    object name = dict_get(fn, ID("name"), unknown);
    auto [arity, arity_reason] = via_pair(hooks::declared_arity, {fn}, [&] { return declared_arity(fn); });
    if (!is_none(arity_reason)) return unsafe_result(arity_reason);
    object schema = get(fn, ID("param_schema"));
    auto [params, reason] = via_pair(hooks::schema_params, {schema, node_limit}, [&] { return schema_params(schema, node_limit); });
    if (!is_none(reason)) return unsafe_result(reason);
    // `for param in params`: a replacement may answer with any iterable
    if (!PyList_CheckExact(params.ptr())) params = list_from(params);
    object data_params = new_list(), config_children = new_list();
    bool stateful = truthy(dict_get(fn, ID("stateful"), Py_False));
    object one = int_of(1);
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(params.ptr()); ++i) {
        object param = borrow(PyList_GET_ITEM(params.ptr(), i));  // held: a replaced helper may change the list
        if (!is_none(node_limit)) {
            object count = int_of(1 + PyList_GET_SIZE(data_params.ptr()) + PyList_GET_SIZE(config_children.ptr()));
            if (cmp(count, node_limit, Py_GE))
                return unsafe_result(msg("param_schema minimum node count exceeds node budget %R", node_limit.ptr()));
        }
        object param_type = get(param, ID("type"));
        if (eq_str(param_type, "data")) {
            list_append(data_params, param);
        } else if (eq_str(param_type, "filtration")) {
            return unsafe_result(str_of("rotation requires filtration input, which is not SIGNAL-safe"));
        } else if (eq_str(param_type, "int") || eq_str(param_type, "float") || eq_str(param_type, "string") ||
                   eq_str(param_type, "bool")) {
            handle pwl = (stateful && eq_str(param_type, "int")) ? window_limit : handle(Py_None);
            auto [child, config_reason] =
                via_pair(hooks::config_child, {name, param, pwl}, [&] { return config_child(name, param, pwl); });
            if (!is_none(config_reason)) return unsafe_result(config_reason);
            list_append(config_children, child);
        } else {
            return unsafe_result(msg("unsupported param_schema type %R", param_type.ptr()));
        }
    }
    Py_ssize_t n_data = PyList_GET_SIZE(data_params.ptr());
    if (n_data == 0) return unsafe_result(str_of("rotation metadata declares no data input"));
    if (!is_none(arity)) {
        object count = int_of(n_data);
        if (cmp(arity, count, Py_NE))
            return unsafe_result(
                msg("arity metadata %R does not match param_schema data inputs %zd", arity.ptr(), n_data));
    }
    object d = new_dict();
    dict_set(d, ID("safe"), Py_True);
    dict_set(d, ID("data_params"), data_params);
    dict_set(d, ID("config_children"), config_children);
    return d;
}

object unsafe_function_reason(handle function_type, handle schema_reason) {
    if (!eq_str(function_type, "rotation"))
        return msg("function_type=%R is not a SIGNAL-safe rotation; random_weighted can only synthesize SIGNAL "
                   "expression graphs from rotations",
                   function_type.ptr());
    if (is_nonempty_str(schema_reason)) return borrow(schema_reason.ptr());
    return str_of("unsupported rotation metadata for SIGNAL-safe random_weighted generation");
}

static object unsafe_reason_late(handle function_type, handle schema_reason) {
    return via(hooks::unsafe_function_reason, {function_type, schema_reason},
               [&] { return unsafe_function_reason(function_type, schema_reason); });
}

std::pair<object, object> function_safety(handle functions, bool log_reasons, handle window_limit, handle node_limit) {
    object safe = new_list(), unsafe = new_dict();
    if (!is_list(functions)) {
        if (log_reasons) log_info("random_weighted excluded function vocabulary: functions must be a list");
        return {safe, unsafe};
    }
    object rotation = str_of("rotation"), empty = str_of("");
    object it = steal(PyObject_GetIter(functions.ptr()));
    while (PyObject* p = PyIter_Next(it.ptr())) {
        object fn = steal(p);
        if (!is_dict(fn)) {
            if (log_reasons) log_info("random_weighted excluded function entry: expected dict metadata");
            continue;
        }
        object name = get(fn, ID("name"));
        if (!is_nonempty_str(name)) {
            if (log_reasons) log_info("random_weighted excluded function with missing name from SIGNAL generation");
            continue;
        }
        object function_type = get(fn, ID("function_type"));
        if (!eq_str(function_type, "rotation")) {
            if (log_reasons)
                log_info("random_weighted excluded %s from SIGNAL generation: function_type=%r is not rotation",
                         {name, function_type});
            dict_set(unsafe, name, unsafe_reason_late(function_type, Py_None));
            continue;
        }
        if (truthy(dict_get(fn, ID("engine_only"), Py_False))) {
            if (log_reasons) log_info("random_weighted excluded %s from SIGNAL generation: engine_only runtime transform", {name});
            dict_set(unsafe, name, str_of("engine_only runtime transform"));
            continue;
        }
        object result = via(hooks::rotation_schema, {fn, window_limit, node_limit},
                            [&] { return rotation_schema(fn, window_limit, node_limit); });
        if (!truthy(dict_get(result, ID("safe"), Py_False))) {
            object dflt = str_of("unsupported rotation metadata");
            object reason = dict_get(result, ID("reason"), dflt);
            if (log_reasons) log_info("random_weighted excluded %s from SIGNAL generation: %s", {name, reason});
            dict_set(unsafe, name, unsafe_reason_late(function_type, reason));
            continue;
        }
        object spec = new_dict();
        dict_set(spec, ID("name"), name);
        dict_set(spec, ID("function_type"), rotation);
        dict_set(spec, ID("function_family"), dict_get(fn, ID("function_family"), empty));
        dict_set(spec, ID("function_subfamily"), dict_get(fn, ID("function_subfamily"), empty));
        dict_set(spec, ID("stateful"), bool_of(truthy(dict_get(fn, ID("stateful"), Py_False))));
        dict_set(spec, ID("data_params"), getitem(result, ID("data_params")));
        dict_set(spec, ID("config_children"), getitem(result, ID("config_children")));
        list_append(safe, spec);
    }
    if (PyErr_Occurred()) throw_py();
    return {safe, unsafe};
}

object safe_rotations(handle functions, handle window_limit, handle node_limit) {
    return via_pair(hooks::function_safety, {functions, Py_True, window_limit, node_limit},
                    [&] { return function_safety(functions, true, window_limit, node_limit); })
        .first;
}

}  // namespace tw::gen
