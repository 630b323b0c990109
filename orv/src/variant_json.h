// Library-internal: the one mapping of parsed JSON to variants, shared by
// variant_fromJSON and the definition parser. Not installed.
#pragma once

#include <nlohmann/json.hpp>

#include "orv/variant.h"

namespace variant_detail {

// As variant_fromJSON maps values: see variant.h.
variant_t fromJson(const nlohmann::ordered_json& j);

}  // namespace variant_detail
