// Canonical vocabulary record: flattening, entry contract and normalisation.
#pragma once

#include "core/module.hpp"

namespace tw::vocab {

object flatten_entries(handle node);
object normalize(handle vocab);
void validate_function_entry(handle entry, handle source_kind);
void validate_feature_entry(handle entry);

}  // namespace tw::vocab
