// The module functions the generator calls, bound late, and the host's
// unpacking rules for the pairs and triples those functions return.
#include "generator/gen.hpp"

namespace tw::gen {

namespace hooks {

const LateFn& late(Id id) {
    static const LateFn table[count] = {
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
    };
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
