// What the operations share: finding their targets and starting a schedule.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "outcome.h"
#include "records.h"
#include "service.h"

// The sentence for a type that is not registered.
std::string operations_noType(const std::string& type);
// The type instance, or null with the reason.
object_t* operations_findType(service_t& service, const std::string& type, std::string* reason);
// The type instance an argument names; null with the reason when the
// argument is missing or the type is not registered.
object_t* operations_typeArgument(service_t& service, const std::optional<std::string>& type,
                                  std::string* reason);
// The schedule instance, or null with the reason.
object_t* operations_findSchedule(service_t& service, const std::string& type,
                                  const std::string& id, std::string* reason);
// Makes the instance of a checked schedule, tells its client the state it
// holds now (a disabled schedule of a registration tells nothing), plans its
// next change and publishes it. The ID must be free. False when the instance
// could not be made.
bool operations_start(service_t& service, object_t* typeInstance,
                      std::unique_ptr<schedule_record_t> record, std::string_view base,
                      bool registering);
