#include "store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

#include "orv/unique_fd.h"

namespace scheduler {

namespace {

namespace fs = std::filesystem;

// "line 3, column 14" for a byte offset in text (counted from 1).
std::string lineAndColumn(std::string_view text, std::size_t byte) {
    std::size_t line = 1;
    std::size_t column = 1;
    for (std::size_t i = 0; i + 1 < byte && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// The reason a parse error gives, without the library's prefix.
std::string parseReason(const json::parse_error& e) {
    std::string what = e.what();
    const auto colon = what.find(": ");
    return colon == std::string::npos ? what : what.substr(colon + 2);
}

void collectSchedules(const json& list, const std::vector<std::string>& states,
                      store_content_t* content, std::vector<std::string>* notes) {
    std::set<std::string> ids;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const std::string pointer = "/schedules/" + std::to_string(i);
        json_problem_t problem;
        std::optional<schedule_status_t> read = schedule_from_json(list[i], pointer, &problem);
        std::optional<std::string> reason;
        if (!read) {
            reason = problem.text();
        } else if (auto invalid = validate(read->schedule, states)) {
            reason = pointer + ": " + *invalid;
        } else if (!ids.insert(read->schedule.id).second) {
            reason = pointer + ": the ID \"" + read->schedule.id + "\" is stored twice";
        }
        if (reason) {
            notes->push_back(*reason + "; kept as rejected");
            content->rejected.push_back({list[i], *reason});
        } else {
            content->schedules.push_back(std::move(read->schedule));
        }
    }
}

std::optional<std::string> formProblem(const json& document, const std::string& type) {
    if (!document.is_object()) {
        return "/: the store must be an object";
    }
    auto it = document.find("type");
    if (it == document.end() || !it->is_string()) {
        return "/type: the store must name its type";
    }
    if (*it != type) {
        return "/type: the store belongs to the type \"" + it->get<std::string>() + "\", not \"" +
               type + "\"";
    }
    for (const char* key : {"schedules", "rejected"}) {
        auto list = document.find(key);
        if (list != document.end() && !list->is_array()) {
            return std::string("/") + key + ": must be a list";
        }
    }
    return std::nullopt;
}

std::string timeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

std::string errnoText(const char* what, const fs::path& file) {
    return std::string(what) + " " + file.string() + ": " + std::strerror(errno);
}

}  // namespace

std::variant<store_content_t, std::string> store_parse(std::string_view text,
                                                       const std::string& type,
                                                       const std::vector<std::string>& states,
                                                       std::vector<std::string>* notes) {
    json document;
    try {
        document = json::parse(text);
    } catch (const json::parse_error& e) {
        return lineAndColumn(text, e.byte) + ": not valid JSON: " + parseReason(e);
    }
    if (auto problem = formProblem(document, type)) {
        return *problem;
    }
    store_content_t content;
    if (auto list = document.find("schedules"); list != document.end()) {
        collectSchedules(*list, states, &content, notes);
    }
    if (auto list = document.find("rejected"); list != document.end()) {
        for (const json& kept : *list) {
            const bool wellFormed = kept.is_object() && kept.contains("schedule");
            content.rejected.push_back({wellFormed ? kept.at("schedule") : kept,
                                        wellFormed && kept.value("reason", json()).is_string()
                                            ? kept.at("reason").get<std::string>()
                                            : "kept as it was stored"});
        }
    }
    return content;
}

std::string store_format(const std::string& type, const store_content_t& content) {
    json schedules = json::array();
    for (const schedule_t& schedule : content.schedules) {
        schedules.push_back(schedule_to_json(schedule));
    }
    json rejected = json::array();
    for (const rejected_t& kept : content.rejected) {
        rejected.push_back({{"reason", kept.reason}, {"schedule", kept.schedule}});
    }
    json document = {
        {"type", type}, {"schedules", std::move(schedules)}, {"rejected", std::move(rejected)}};
    return document.dump(1) + "\n";
}

store_t::store_t(std::filesystem::path file, std::string type, std::vector<std::string> states,
                 log_t log)
    : file_(std::move(file)),
      type_(std::move(type)),
      states_(std::move(states)),
      log_(std::move(log)) {}

std::optional<store_content_t> store_t::read(const fs::path& file) {
    std::error_code ec;
    const auto size = fs::file_size(file, ec);
    std::string problem;
    std::vector<std::string> notes;
    if (ec) {
        problem = "cannot be read: " + ec.message();
    } else if (size > kMaxStoreBytes) {
        problem = "it holds " + std::to_string(size) + " bytes, more than a store may (" +
                  std::to_string(kMaxStoreBytes) + ")";
    } else {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        auto parsed = store_parse(text.str(), type_, states_, &notes);
        if (auto* content = std::get_if<store_content_t>(&parsed)) {
            for (const std::string& note : notes) {
                log_("store " + file.string() + ": " + note);
            }
            return std::move(*content);
        }
        problem = std::get<std::string>(parsed);
    }
    log_("store " + file.string() + ": " + problem);
    moveAside(file);
    return std::nullopt;
}

void store_t::moveAside(const fs::path& file) {
    const std::string stamp = timeStamp();
    fs::path aside = file.string() + ".corrupt-" + stamp;
    for (int n = 1; fs::exists(aside); ++n) {
        aside = file.string() + ".corrupt-" + stamp + "-" + std::to_string(n);
    }
    std::error_code ec;
    fs::rename(file, aside, ec);
    log_(ec ? "store " + file.string() + ": could not be moved aside: " + ec.message()
            : "store " + file.string() + ": moved aside to " + aside.string());
}

store_content_t store_t::load() {
    if (!fs::exists(file_)) {
        log_("store " + file_.string() + ": none yet, starting empty");
        return {};
    }
    if (std::optional<store_content_t> content = read(file_)) {
        return std::move(*content);
    }
    const fs::path backup = file_.string() + ".bak";
    if (fs::exists(backup)) {
        log_("store " + file_.string() + ": using the backup " + backup.string());
        if (std::optional<store_content_t> content = read(backup)) {
            return std::move(*content);
        }
    }
    log_("store " + file_.string() + ": starting empty");
    return {};
}

bool store_t::save(const store_content_t& content) {
    const std::string text = store_format(type_, content);
    const fs::path temporary = file_.string() + ".tmp";
    unique_fd_t out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    bool ok = out.get() >= 0;
    for (std::size_t done = 0; ok && done < text.size();) {
        const ssize_t n = ::write(out.get(), text.data() + done, text.size() - done);
        ok = n > 0 || (n < 0 && errno == EINTR);
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    ok = ok && ::fsync(out.get()) == 0 && out.close();
    if (!ok) {
        log_("store: " + errnoText("cannot write", temporary));
        ::unlink(temporary.c_str());
        return false;
    }
    return replace(temporary);
}

}  // namespace scheduler

namespace scheduler {

bool store_t::replace(const fs::path& temporary) {
    // The backup is a second name for the old store, made before the new one
    // takes its place: at every moment the store's name holds a complete file.
    if (fs::exists(file_)) {
        const fs::path backup = file_.string() + ".bak";
        const fs::path backupTemporary = backup.string() + ".tmp";
        ::unlink(backupTemporary.c_str());
        if (::link(file_.c_str(), backupTemporary.c_str()) != 0 ||
            ::rename(backupTemporary.c_str(), backup.c_str()) != 0) {
            log_("store: " + errnoText("cannot keep the backup", backup));
        }
    }
    if (::rename(temporary.c_str(), file_.c_str()) != 0) {
        log_("store: " + errnoText("cannot replace", file_));
        ::unlink(temporary.c_str());
        return false;
    }
    const fs::path folder = file_.parent_path().empty() ? fs::path(".") : file_.parent_path();
    unique_fd_t directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0 || ::fsync(directory.get()) != 0) {
        log_("store: " + errnoText("cannot flush the folder", folder));
    }
    return true;
}

}  // namespace scheduler
