// The console's bearer token: read from its file, or made and written there
// (mode 0600) on first start.
#pragma once

#include <string>
#include <string_view>

// The token, or throws std::runtime_error with the reason. A file that
// others may read is refused rather than trusted.
std::string web_loadToken(const std::string& file);

// Whether an Authorization header carries the token. Compares in time that
// does not depend on where the texts differ.
bool web_tokenMatches(std::string_view authorization, const std::string& token);
