// Entry point of tarnwicket.search_templates: creates the module state, then
// lets every subsystem register its names, in the order of the table below.
#include "core/module.hpp"

namespace {

using tw::handle;

// One registration step. A step may read only names that earlier steps set;
// those it reads are listed in `needs` and checked before it runs, so that a
// reordering fails at import naming the step and the name, not later.
struct Step {
    const char* name;
    void (*run)(handle);
    std::initializer_list<const char*> needs;
};

const Step kSteps[] = {
    {"constants", tw::register_constants, {}},
    {"collaborators", tw::register_collaborators, {}},
    {"state", tw::register_state, {}},
    {"records", tw::register_records, {"_EMPTY_FIELD_SET"}},  // a signature default
    {"metric contract", tw::register_metric_contract, {}},
    {"vocabulary", tw::register_vocabulary, {"_EMPTY_FIELD_SET"}},  // a signature default
    {"sandbox", tw::register_sandbox, {}},
    {"payload", tw::register_payload, {}},
    {"binding", tw::register_binding, {}},
    {"context", tw::register_context, {}},
    {"handle", tw::register_handle, {}},
    {"preflight", tw::register_preflight, {}},
    {"management", tw::register_management, {}},
    {"lifecycle", tw::register_lifecycle, {}},
    {"generator", tw::register_generator, {}},
};

void run_steps(handle m) {
    for (const Step& step : kSteps) {
        for (const char* need : step.needs) {
            tw::object key = tw::steal(tw::check(PyUnicode_InternFromString(need)));
            if (!tw::global_or_none(key).is_none()) continue;
            tw::raise(PyExc_ImportError, std::string("module set-up out of order: the ") + step.name +
                                             " step needs " + need + ", which no earlier step set");
        }
        step.run(m);
    }
}

}  // namespace

PYBIND11_MODULE(search_templates, m) {
    using namespace tw;
    init_module_state(m);
    m.doc() = "Search templates subcomponent -- search orchestration, templates, submission pipeline.";
    object logging = import_module("logging");
    set_global("logger", call(get_attr(logging, ID("getLogger")), {str_of("tarnwicket.search_templates")}));
    run_steps(m);
}
