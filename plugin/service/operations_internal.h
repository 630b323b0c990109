// What the operations share: finding their targets and starting a schedule.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "records.h"
#include "service.h"

// The type instance, or null with a trace.
object_t* operations_findType(service_t& service, const std::string& type);
// The schedule instance, or null with a trace.
object_t* operations_findSchedule(service_t& service, const std::string& type,
                                  const std::string& id);
// Makes the instance of a checked schedule, tells its client the state it
// holds now (a disabled schedule of a registration tells nothing), plans its
// next change and publishes it. The ID must be free. False when the instance
// could not be made.
bool operations_start(service_t& service, object_t* typeInstance,
                      std::unique_ptr<schedule_record_t> record, std::string_view base,
                      bool registering);
