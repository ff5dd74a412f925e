// The module functions the generator calls, bound late, and the host's
// unpacking rules for the pairs and triples those functions return.
#include "generator/gen.hpp"

namespace tw::gen {

namespace hooks {

const LateFn& late(Id id) {
    static const LateFn table[] = {
        LateFn("_normalize_template_vocabulary"),
        LateFn("_random_weighted_window_limit"),
        LateFn("_random_weighted_node_limit"),
        LateFn("_random_weighted_safe_rotations"),
        LateFn("_random_weighted_feature_names"),
        LateFn("_random_weighted_rotations_within_node_budget"),
        LateFn("_random_weighted_max_depth_within_node_budget"),
        LateFn("_random_weighted_yield_maps"),
        LateFn("_random_weighted_cum_weights"),
        LateFn("_build_random_signal_expression"),
        LateFn("_weighted_choice"),
        LateFn("_random_weighted_function_safety"),
        LateFn("_random_weighted_feature_specs"),
        LateFn("_random_weighted_analytics_stats"),
        LateFn("_random_weighted_normalized_weights"),
        LateFn("_random_weighted_function_weight_report"),
        LateFn("_random_weighted_feature_weight_report"),
        LateFn("_random_weighted_unsafe_function_reason"),
        LateFn("_random_weighted_rotation_schema"),
        LateFn("_random_weighted_declared_arity"),
        LateFn("_random_weighted_schema_params"),
        LateFn("_random_weighted_param_dict"),
        LateFn("_random_weighted_config_child"),
        LateFn("_random_weighted_numeric_bounds"),
        LateFn("_random_weighted_numeric_range_label"),
        LateFn("_random_weighted_numeric_bounds_reason"),
        LateFn("_random_weighted_config_value_reason"),
        LateFn("_random_weighted_window_bounded_param"),
        LateFn("_random_weighted_window_budget_reason"),
        LateFn("_random_weighted_numeric_default"),
        LateFn("_random_weighted_first_choice"),
        LateFn("_random_weighted_analytics_entries"),
        LateFn("_random_weighted_valid_names"),
        LateFn("_random_weighted_allowed_name_set"),
        LateFn("_random_weighted_skip_analytics_name"),
        LateFn("_random_weighted_add_stat"),
        LateFn("_random_weighted_finalize_stats"),
        LateFn("_random_weighted_weight_entry"),
        LateFn("_random_weighted_is_finite_number"),
        LateFn("_random_weighted_float"),
        LateFn("_random_weighted_int"),
        LateFn("_random_weighted_positive_int"),
        LateFn("_random_weighted_safe_yield_rate"),
        LateFn("_random_weighted_era_value"),
        LateFn("_random_weighted_buffer_duration_limit"),
        LateFn("_random_weighted_min_node_count"),
        LateFn("_random_weighted_worst_case_node_count"),
    };
    static_assert(std::size(table) == count, "one name per hook");
    return table[id];
}

}  // namespace hooks

std::vector<object> unpack(handle value, std::size_t n) {
    std::vector<object> out;
    if (PyTuple_CheckExact(value.ptr()) || PyList_CheckExact(value.ptr())) {
        Py_ssize_t size = PySequence_Fast_GET_SIZE(value.ptr());
        if ((std::size_t)size == n) {
            for (Py_ssize_t i = 0; i < size; ++i) out.push_back(borrow(PySequence_Fast_GET_ITEM(value.ptr(), i)));
            return out;
        }
    }
    PyObject* itp = PyObject_GetIter(value.ptr());
    if (!itp) {
        if (PyErr_ExceptionMatches(PyExc_TypeError)) {
            PyErr_Clear();
            raise(PyExc_TypeError,
                  std::string("cannot unpack non-iterable ") + Py_TYPE(value.ptr())->tp_name + " object");
        }
        throw_py();
    }
    object it = steal(itp);
    while (out.size() <= n) {
        PyObject* p = PyIter_Next(it.ptr());
        if (!p) break;
        out.push_back(steal(p));
    }
    if (PyErr_Occurred()) throw_py();
    if (out.size() < n)
        raise(PyExc_ValueError, "not enough values to unpack (expected " + std::to_string(n) + ", got " +
                                    std::to_string(out.size()) + ")");
    if (out.size() > n) raise(PyExc_ValueError, "too many values to unpack (expected " + std::to_string(n) + ")");
    return out;
}

}  // namespace tw::gen
