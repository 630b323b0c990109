// The owner's store: one JSON file with the schedules of one type.
//
//   {"type": "Light", "schedules": [{…}, …], "rejected": [{"reason": …, "schedule": {…}}]}
//
// "schedules" holds what the scheduler returned when the type's schedules
// were last read back; "rejected" holds stored schedules that could not be
// used, with the reason, so that nobody's data disappears without a word.
//
// A save never leaves a half-written file: the new content goes to a
// temporary file in the same folder, which is flushed and renamed over the
// store; the previous store stays as "<store>.bak". A store that cannot be
// read is moved aside to "<store>.corrupt-<time>" and the backup is read
// instead.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "schedule_json.h"
#include "scheduler/schedule.h"

namespace scheduler {

struct rejected_t {
    // As it was stored or sent: it may not even have a schedule's form.
    json schedule;
    std::string reason;
};

struct store_content_t {
    std::vector<schedule_t> schedules;
    std::vector<rejected_t> rejected;
};

// Files larger than this are refused unread.
inline constexpr std::size_t kMaxStoreBytes = 8u << 20;

// Parses a store's text for a type. A problem with the file as a whole
// (not JSON, not the store's form, another type) is returned as a text that
// says where and why; a schedule that cannot stand goes to "rejected" with a
// line in *notes.
std::variant<store_content_t, std::string> store_parse(std::string_view text,
                                                       const std::string& type,
                                                       const std::vector<std::string>& states,
                                                       std::vector<std::string>* notes);
std::string store_format(const std::string& type, const store_content_t& content);

class store_t {
  public:
    using log_t = std::function<void(std::string_view)>;

    store_t(std::filesystem::path file, std::string type, std::vector<std::string> states,
            log_t log);

    // The stored content; empty when there is no store yet or neither the
    // store nor its backup could be read.
    store_content_t load();
    // False, with a log line, when the new store could not be written; the
    // old one is then untouched.
    bool save(const store_content_t& content);

    const std::filesystem::path& file() const { return file_; }

  private:
    std::optional<store_content_t> read(const std::filesystem::path& file);
    void moveAside(const std::filesystem::path& file);
    // Puts a written temporary file in the store's place, keeping the old
    // store as the backup.
    bool replace(const std::filesystem::path& temporary);

    std::filesystem::path file_;
    std::string type_;
    std::vector<std::string> states_;
    log_t log_;
};

}  // namespace scheduler
