// Entry point of tarnwicket.search_templates: creates the module namespace and
// lets every subsystem register its names, in dependency order.
#include "core/module.hpp"

PYBIND11_MODULE(search_templates, m) {
    using namespace tw;
    init_module_state(m);
    m.doc() = "Search templates subcomponent -- search orchestration, templates, submission pipeline.";
    object logging = import_module("logging");
    set_global("logger", call(get_attr(logging, ID("getLogger")), {str_of("tarnwicket.search_templates")}));

    register_constants(m);
    register_collaborators(m);
    register_state(m);
    register_records(m);
    register_metric_contract(m);
    register_vocabulary(m);
    register_sandbox(m);
    register_payload(m);
    register_binding(m);
    register_context(m);
    register_handle(m);
    register_preflight(m);
    register_management(m);
    register_lifecycle(m);
    register_generator(m);
}
