// Schedules in the data model: the instances of
// Scheduler.Types.<type>.Schedules, keyed by ID, each with a
// schedule_record_t. This layer writes the parameters from the records and
// reads the data model; it sends nothing and plans nothing.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "orv/object.h"
#include "records.h"
#include "scheduler_plugin_common.h"

// A schedule record made from a schedule as sent, checked against its type:
// the required texts, a known base, the default and override among the
// type's states, and entries that keep the rules. The reason it is refused
// otherwise.
struct schedule_parse_t {
    std::unique_ptr<schedule_record_t> record;
    std::string reason;
};
schedule_parse_t schedules_parse(const schedule_t& schedule, const type_record_t& type);

object_t* schedules_find(object_t* typeInstance, std::string_view id);
// The template of the type's schedules, "Schedules"; null when it is missing.
object_t* schedules_template(const object_t* typeInstance);
schedule_record_t* schedules_record(const object_t* instance);
// The type instance a schedule belongs to.
object_t* schedules_typeOf(const object_t* instance);
std::vector<object_t*> schedules_of(const object_t* typeInstance);
// Calls visit(instance, record) for each schedule of the type, in creation
// order. visit must neither add nor remove schedules.
//
// A type may hold a hundred thousand schedules scattered over the heap, and a
// walk over all of them waits on memory, not on the work: while one schedule
// is visited, the next ones are already being fetched.
template <typename Visit>
void schedules_each(const object_t* typeInstance, Visit visit);
// A new, still pending instance that owns record; null when the ID is taken
// or the instance cannot be made, and nothing is left behind then.
object_t* schedules_create(object_t* typeInstance, std::unique_ptr<schedule_record_t> record,
                           std::string_view base);
// Writes the parameters that follow the record (Enable, Override,
// TemporaryOverride, CurrentState, NextStateChange) and commits: one
// announcement carries every parameter that changed.
void schedules_publish(object_t* instance, const schedule_record_t& record);
// Deletes the instance, committed; it must not be touched afterwards.
void schedules_delete(object_t* instance);
// The schedule as read back; with complete, its entries as they were sent.
schedule_t schedules_read(const object_t* instance, bool complete);

template <typename Visit>
void schedules_each(const object_t* typeInstance, Visit visit) {
    object_t* schedules = schedules_template(typeInstance);
    // Three schedules ahead of the present one: the instance of the third
    // comes in, the record of the second, and the entries of the first, each
    // found through what the step before brought in.
    object_t* current = schedules != nullptr ? object_firstInstance(schedules) : nullptr;
    object_t* next = current != nullptr ? object_nextInstance(current) : nullptr;
    object_t* after = next != nullptr ? object_nextInstance(next) : nullptr;
    while (current != nullptr) {
        object_t* later = after != nullptr ? object_nextInstance(after) : nullptr;
        if (later != nullptr) {
            __builtin_prefetch(later);
        }
        if (after != nullptr) {
            __builtin_prefetch(schedules_record(after));
        }
        if (next != nullptr) {
            __builtin_prefetch(schedules_record(next)->spec.entries.data());
        }
        visit(current, *schedules_record(current));
        current = next;
        next = after;
        after = later;
    }
}
