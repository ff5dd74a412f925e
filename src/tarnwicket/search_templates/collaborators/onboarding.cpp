#include "collaborators/onboarding.hpp"

namespace tw::onboarding {

bool is_absent(const py::error_already_set& e) {
    if (!matches(e, PyExc_ModuleNotFoundError)) return false;
    object name = get_attr_or_none(e.value(), ID("name"));
    object expected = str_of("tarnwicket.agent_onboarding");
    return check_int(PyObject_RichCompareBool(name.ptr(), expected.ptr(), Py_EQ)) == 1;
}

object module_or_null() {
    try {
        return import_module("tarnwicket.agent_onboarding");
    } catch (py::error_already_set& e) {
        if (is_absent(e)) return object();
        throw;
    }
}

}  // namespace tw::onboarding
