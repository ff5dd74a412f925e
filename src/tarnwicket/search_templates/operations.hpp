// The module's own operations at the root: search(), the management commands
// and status, the start-up probes, the process-wide state and the constructors
// of its exception types. register.cpp names them to Python.
#pragma once

#include "core/module.hpp"

namespace tw::ops {

// search.cpp
object search(handle template_, handle n_jobs);

// state.cpp: stops every live search when the host shuts its threads down.
void register_exit_hook();

// preflight.cpp
object is_authed(handle mod);
object check_memory();
object check_disk();
object raise_if_management_blocked();

// management.cpp
object module_status();
object agent_onboarding_data_dir(handle default_);
object configured_tracking_data_dir();
object new_management_tracker();
object call_management_tracker(handle method_name, handle args, handle kwargs);
object delete_evaluations(handle eval_type, handle keep_last);
object delete_failed_evaluations(handle eval_type);
object get_db_info();
object inject_heartbeat();
object safe_update_nudge(handle trigger, handle context);

// records.cpp
object search_error_init(handle self, handle error_code, handle recovery_advice, handle message, handle status);
object row_schema_error_init(handle self, handle source_kind, handle missing, handle row_id, handle message);
object receipt_record_init(handle self, handle submission_id);

}  // namespace tw::ops
