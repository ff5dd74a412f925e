// The signal service as the module meets it (signal_service.cpp).
#pragma once

#include "core/module.hpp"

namespace tw::service {

object resolve_signal_service_url();
object submission_auth_obj();
object get_submission_token();
object build_client(handle timeout);
// A client built through the late-bound `_build_signal_service_client`.
object default_client();
object details_from_body(handle body);
object result_to_receipt(handle result, handle submission_type, handle receipt_cls, handle rejected_error);
object poll_status_internal(handle submission_id);
// poll_status(): through the late-bound `_poll_status_internal`.
object poll_status(handle submission_id);

}  // namespace tw::service
