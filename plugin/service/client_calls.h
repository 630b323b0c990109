// The calls the plug-in makes to its clients.
#pragma once

#include <string>

#include "service.h"

// Sends "setState" with "ID" and "state" to the client object at path, with
// no reply expected. False when it was not sent, also while the clock is not
// synchronised or the client's bus name has no owner.
bool setState(const service_t& service, const std::string& path, const std::string& id,
              const std::string& state);
