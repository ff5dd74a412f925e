// Canonical vocabulary record: flattening, entry contract and normalisation.
#pragma once

#include "core/module.hpp"

namespace tw::vocab {

object flatten_entries(handle node);
object normalize(handle vocab);
void validate_function_entry(handle entry, handle source_kind);
void validate_feature_entry(handle entry);
// VocabSchemaError.__init__
object schema_error_init(handle self, handle source_kind, handle missing, handle unexpected, handle entry,
                         handle message);

}  // namespace tw::vocab
