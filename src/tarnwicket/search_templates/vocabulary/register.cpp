// The names of this subsystem as Python sees them: this file only registers.
#include "vocabulary/normalize.hpp"
#include "vocabulary/sandbox.hpp"

namespace tw::vocab {
namespace {

object frozenset_of(std::initializer_list<const char*> items) {
    object l = new_list();
    for (auto s : items) list_append(l, str_of(s));
    return steal(check(PyFrozenSet_New(l.ptr())));
}

#define TW_FASTCALL_KW(fn) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(fn))

PyMethodDef g_hook_defs[] = {
    {"_sandboxed_open", TW_FASTCALL_KW(sandboxed_open), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_open(*args, **kwargs)\n--\n\n"},
    {"_sandboxed_sqlite_connect", TW_FASTCALL_KW(sandboxed_sqlite_connect), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_sqlite_connect(*args, **kwargs)\n--\n\n"},
    {"_sandboxed_urllib_urlopen", TW_FASTCALL_KW(sandboxed_urllib_urlopen), METH_FASTCALL | METH_KEYWORDS,
     "_sandboxed_urllib_urlopen(*args, **kwargs)\n--\n\n"},
};

#undef TW_FASTCALL_KW

}  // namespace
}  // namespace tw::vocab

namespace tw {

void register_vocabulary(handle m) {
    using namespace vocab;
    set_global("_ROTATION_REQUIRED_FIELDS",
               frozenset_of({"name", "function_type", "function_family", "function_subfamily", "param_schema"}));
    set_global("_FILTRATION_REQUIRED_FIELDS",
               frozenset_of({"name", "function_type", "function_family", "param_schema"}));
    set_global("_FILTRATION_FORBIDDEN_FIELDS", frozenset_of({"function_subfamily"}));
    set_global("_REDUCTION_REQUIRED_FIELDS",
               frozenset_of({"name", "function_type", "function_family", "function_subfamily", "param_schema"}));
    set_global("_FEATURE_REQUIRED_FIELDS",
               frozenset_of({"name", "function_type", "feature_family", "feature_subfamily", "rotation_families",
                             "feature_hash", "stats"}));
    set_global("_FEATURE_STATS_REQUIRED_KEYS", frozenset_of({"mean", "std", "pct_nan", "min", "max"}));

    object cls = make_exception("VocabSchemaError", handle(PyExc_ValueError),
                                "A vocabulary entry that breaks the canonical contract (missing or unexpected fields).");
    def_method<schema_error_init>(cls,
                                  "__init__($self, source_kind, missing=_EMPTY_FIELD_SET, unexpected=_EMPTY_FIELD_SET, "
                                  "entry=None, message=None)");
    set_global("VocabSchemaError", cls);

    def_function<flatten_entries>(m, "_flatten_vocabulary_entries(node)");
    def_function<normalize>(m, "_normalize_template_vocabulary(vocab)");
    def_function<validate_function_entry>(m, "_validate_function_entry(entry, source_kind)");
    def_function<validate_feature_entry>(m, "_validate_feature_entry(entry)");
}

void register_sandbox(handle m) {
    using namespace vocab;
    object threading = import_module("threading");
    set_global("_template_sandbox_lock", call(get_attr(threading, ID("Lock"))));
    set_global("_template_sandbox_threads", steal(check(PySet_New(nullptr))));
    set_global("_template_sandbox_hooks_installed", bool_of(false));
    set_global("_original_open", get_attr(import_module("builtins"), ID("open")));
    set_global("_original_sqlite_connect", get_attr(import_module("sqlite3"), ID("connect")));
    set_global("_original_urllib_urlopen", none());

    init_guard_type();
    // Resolve the host lock's C methods now, while the import holds things still.
    (void)detail::host_lock_methods();

    object modname = str_of("tarnwicket.search_templates");
    for (PyMethodDef& def : g_hook_defs) {
        object fn = steal(check(PyCFunction_NewEx(&def, nullptr, modname.ptr())));
        set_global(def.ml_name, fn);
    }

    def_function<template_sandbox>(m, "_template_sandbox()");
    def_function<template_sandbox_active>(m, "_template_sandbox_active()");
    def_function<raise_violation>(m, "_raise_template_sandbox_violation(operation)");
    def_function<install_template_hooks>(m, "_install_template_sandbox_hooks()");
}

}  // namespace tw
