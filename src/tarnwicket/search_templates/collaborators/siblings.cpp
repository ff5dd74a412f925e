// Names taken from the sibling modules when this module loads.
#include "core/module.hpp"

namespace tw {

void register_collaborators(handle m) {
    (void)m;
    set_global("SyncManager", import_attr("tarnwicket.sync", ID("SyncManager")));
    object tracking = import_module("tarnwicket.search_tracking");
    set_global("_BacktestStats", get_attr(tracking, ID("BacktestStats")));
    set_global("_ensure_submission_sim_parent", get_attr(tracking, ID("_ensure_submission_sim_parent")));
    set_global("_synthetic_submission_sim_id", get_attr(tracking, ID("_synthetic_submission_sim_id")));
    set_global("ObfuscationManager", import_attr("tarnwicket.obfuscation", ID("ObfuscationManager")));
    set_global("SdkRuntimeNotReadyError", import_attr("tarnwicket.errors", ID("SdkRuntimeNotReadyError")));
    set_global("notify_submission_status",
               import_attr("tarnwicket.submission_status_notify", ID("notify_submission_status")));
}

}  // namespace tw
