// The stateless layer between the pipeline and the signal service client:
// server URL, token, a short-lived client per call, and the mapping of the
// client's plain results to receipts, statuses and errors.
#pragma once

#include "core/module.hpp"

namespace tw::binding {

object pool_id_from_config_entry(handle pool);
object first_signal_pool_id_from_era_config(handle era_config);
// Sends one stored payload; returns the service's receipt.
object submit_signal_payload(handle payload);
// Late-bound entry used by SearchContext.
object call_first_signal_pool_id(handle era_config);

}  // namespace tw::binding
