// What every file of the module includes: the namespace and late binding,
// registration, locks, error builders, class creation and logging.
#pragma once

#include "core/binding.hpp"
#include "core/errors.hpp"
#include "core/event.hpp"
#include "core/late.hpp"
#include "core/lock.hpp"

namespace tw {

// A plain class `name(base)` in this module, created through the host's `type`.
object make_class(const char* name, handle base = handle(reinterpret_cast<PyObject*>(&PyBaseObject_Type)), const char* doc = nullptr);
// An exception class deriving from `base`.
object make_exception(const char* name, handle base, const char* doc = nullptr);
// A dataclass built by the host's dataclasses.make_dataclass.
// fields: {name, default-expression}; a default expression "[]" means a fresh list.
object make_record(const char* name, std::initializer_list<std::pair<const char*, const char*>> fields, const char* doc = nullptr);
// `cls(**fields)`. While `cls` is a record class as make_record made it, the
// instance is built directly: its fields set in order, defaults for the rest,
// as the generated __init__ does. Names must be interned (ID()).
object new_record(handle cls, std::initializer_list<std::pair<handle, handle>> fields);

// ---------------------------------------------------------------- logging

// The module logger (module global `logger`, read at each use).
object logger();
// logger.<level>(fmt, *args)
void log(const char* level, const char* fmt, std::initializer_list<handle> args = {});
inline void log_info(const char* fmt, std::initializer_list<handle> args = {}) { log("info", fmt, args); }
inline void log_warning(const char* fmt, std::initializer_list<handle> args = {}) { log("warning", fmt, args); }
inline void log_debug(const char* fmt, std::initializer_list<handle> args = {}) { log("debug", fmt, args); }
// logger.error(msg, exc_info=True) while handling `e` (the traceback is attached).
void log_error_exc(const char* msg, const py::error_already_set& e);
// True when logger.isEnabledFor(level) — used to skip building costly arguments.
bool log_enabled(int level);

// Python's str.format-free composition helpers.
std::string cat(std::initializer_list<std::string_view> parts);

// ---------------------------------------------------------------- module set-up hooks

// Each subsystem registers its names through one of these, called at import.
void register_constants(handle m);
void register_state(handle m);
void register_records(handle m);
void register_metric_contract(handle m);
void register_vocabulary(handle m);
void register_sandbox(handle m);
void register_payload(handle m);
void register_binding(handle m);
void register_context(handle m);
void register_handle(handle m);
void register_lifecycle(handle m);
void register_preflight(handle m);
void register_management(handle m);
void register_generator(handle m);
void register_collaborators(handle m);

}  // namespace tw
