// Late binding of the module functions the generator calls, and the host's
// unpacking rules for the pairs and triples those functions return.
#include "generator/gen.hpp"

namespace tw::gen {

namespace hooks {

PyObject* original[count] = {};

PyObject* const* names() {
    static PyObject* table[count] = {
        PyUnicode_InternFromString("_normalize_template_vocabulary"),
        PyUnicode_InternFromString("_random_weighted_window_limit"),
        PyUnicode_InternFromString("_random_weighted_node_limit"),
        PyUnicode_InternFromString("_random_weighted_safe_rotations"),
        PyUnicode_InternFromString("_random_weighted_feature_names"),
        PyUnicode_InternFromString("_random_weighted_rotations_within_node_budget"),
        PyUnicode_InternFromString("_random_weighted_max_depth_within_node_budget"),
        PyUnicode_InternFromString("_random_weighted_yield_maps"),
        PyUnicode_InternFromString("_random_weighted_cum_weights"),
        PyUnicode_InternFromString("_build_random_signal_expression"),
        PyUnicode_InternFromString("_weighted_choice"),
        PyUnicode_InternFromString("_random_weighted_function_safety"),
        PyUnicode_InternFromString("_random_weighted_feature_specs"),
        PyUnicode_InternFromString("_random_weighted_analytics_stats"),
        PyUnicode_InternFromString("_random_weighted_normalized_weights"),
        PyUnicode_InternFromString("_random_weighted_function_weight_report"),
        PyUnicode_InternFromString("_random_weighted_feature_weight_report"),
    };
    return table;
}

object replaced(Id id) {
    object current = global(handle(names()[id]));
    if (current.ptr() == original[id]) return object();
    return current;
}

// The namespace dict's version tag changes on every write to it, so an
// unchanged tag means every answer below still holds.
static uint64_t g_seen_version = 0;
static bool g_own[count];

uint64_t namespace_version() { return reinterpret_cast<PyDictObject*>(module_state().globals)->ma_version_tag; }

bool is_own(Id id) {
    uint64_t version = reinterpret_cast<PyDictObject*>(module_state().globals)->ma_version_tag;
    if (version != g_seen_version || version == 0) {
        PyObject* const* n = names();
        for (int i = 0; i < count; ++i) {
            PyObject* v = PyDict_GetItemWithError(module_state().globals, n[i]);
            if (!v && PyErr_Occurred()) throw_py();
            g_own[i] = v && v == original[i];
        }
        g_seen_version = version;
    }
    return g_own[id];
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
