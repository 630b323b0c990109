// The log writer never blocks and never ends the process: a pipe nobody
// reads or nobody holds any more costs lines, counted, and the count reaches
// the log once it is read again. Trace levels read from text apply whole or
// not at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "orv/log_writer.h"
#include "orv/trace.h"
#include "orv/unique_fd.h"

namespace {

struct pipe_t {
    unique_fd_t read;
    unique_fd_t write;
    pipe_t() {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        read = unique_fd_t(fds[0]);
        write = unique_fd_t(fds[1]);
    }
    // The writer opens the pipe by name, as it would a file.
    std::string path() const { return "/proc/self/fd/" + std::to_string(write.get()); }
    std::string drain() const {
        std::string text;
        char buffer[65536];
        fcntl(read.get(), F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = ::read(read.get(), buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
        return text;
    }
};

std::unique_ptr<orv_log_writer_t> openWriter(const std::string& path, std::size_t queueBytes) {
    std::string error;
    auto writer = orv_log_writer_t::open({path, queueBytes}, &error);
    EXPECT_TRUE(writer) << error;
    return writer;
}

// The counts of dropped lines that a log reports.
std::vector<std::uint64_t> dropNotices(const std::string& text) {
    std::vector<std::uint64_t> counts;
    const std::string head = "log: ";
    const std::string tail = " lines were dropped while the log could not be written\n";
    for (std::size_t at = 0; (at = text.find(head, at)) != std::string::npos; ++at) {
        const std::size_t end = text.find(tail, at);
        if (end != std::string::npos) {
            counts.push_back(std::stoull(text.substr(at + head.size(), end - at - head.size())));
        }
    }
    return counts;
}

TEST(LogWriter, AStalledReaderCostsCountedLinesAndTheCountFollows) {
    pipe_t pipe;
    // The pipe is full before the writer starts, as when its reader stopped.
    fcntl(pipe.write.get(), F_SETFL, O_NONBLOCK);
    const std::string filler(4096, '.');
    while (::write(pipe.write.get(), filler.data(), filler.size()) > 0) {
    }
    auto writer = openWriter(pipe.path(), 1024);
    const std::string line(100, 'x');
    // Far more than the queue holds: if a write blocked, the test would hang
    // here.
    constexpr std::uint64_t kLines = 3000;
    for (std::uint64_t i = 0; i < kLines; ++i) {
        writer->write(TRACE_LEVEL_NOTICE, line);
    }
    writer->flush();
    const std::uint64_t dropped = writer->dropped();
    EXPECT_GT(dropped, kLines - 20);
    std::string text = pipe.drain();
    writer->write(TRACE_LEVEL_NOTICE, "after");
    writer.reset();
    text += pipe.drain();
    // The count reaches the log once it can be written again: in one notice,
    // or in two when the thread took its first line after drops began.
    const std::vector<std::uint64_t> notices = dropNotices(text);
    EXPECT_FALSE(notices.empty());
    EXPECT_EQ(std::accumulate(notices.begin(), notices.end(), std::uint64_t{0}), dropped);
    EXPECT_TRUE(text.ends_with(line + "\nafter\n"));
    // Every line is either written whole or counted.
    const auto written =
        static_cast<std::uint64_t>(std::count(text.begin(), text.end(), 'x')) / line.size();
    EXPECT_EQ(written + dropped, kLines);
}

TEST(LogWriter, AClosedReaderEndsNothing) {
    pipe_t pipe;
    auto writer = openWriter(pipe.path(), 64 * 1024);
    pipe.read.reset();
    // SIGPIPE keeps its default action here: a write that raised it on this
    // thread would end the test.
    for (int i = 0; i < 10; ++i) {
        writer->write(TRACE_LEVEL_ERROR, "to nobody");
    }
    writer->flush();
    EXPECT_EQ(writer->dropped(), 10U);
}

TEST(LogWriter, ReopenFollowsARotatedFile) {
    const std::string path =
        ::testing::TempDir() + "log_writer_rotated." + std::to_string(getpid()) + ".log";
    std::remove(path.c_str());
    std::remove((path + ".1").c_str());
    auto writer = openWriter(path, 64 * 1024);
    writer->write(TRACE_LEVEL_NOTICE, "before");
    writer->flush();
    ASSERT_EQ(std::rename(path.c_str(), (path + ".1").c_str()), 0);
    std::string error;
    ASSERT_TRUE(writer->reopen(&error)) << error;
    writer->write(TRACE_LEVEL_NOTICE, "after");
    writer.reset();
    const auto read = [](const std::string& name) {
        std::stringstream text;
        text << std::ifstream(name).rdbuf();
        return text.str();
    };
    EXPECT_EQ(read(path + ".1"), "before\n");
    EXPECT_EQ(read(path), "after\n");
}

// Standard error that is the journal's stream gets each line's priority.
TEST(LogWriter, TheJournalGetsPriorities) {
    pipe_t pipe;
    struct stat st {};
    ASSERT_EQ(fstat(pipe.write.get(), &st), 0);
    const std::string stream = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
    const unique_fd_t savedStderr(dup(2));
    ASSERT_EQ(dup2(pipe.write.get(), 2), 2);
    setenv("JOURNAL_STREAM", stream.c_str(), 1);
    auto writer = openWriter("", 64 * 1024);
    const std::pair<int, const char*> rows[] = {
        {TRACE_LEVEL_ERROR, "<3>"},    {TRACE_LEVEL_WARNING, "<4>"}, {TRACE_LEVEL_NOTICE, "<5>"},
        {TRACE_LEVEL_APP_INFO, "<6>"}, {TRACE_LEVEL_INFO, "<6>"},    {TRACE_LEVEL_CALLSTACK, "<7>"},
    };
    std::string expected;
    for (const auto& [level, prefix] : rows) {
        writer->write(level, "line");
        expected += prefix + std::string("line\n");
    }
    writer.reset();
    unsetenv("JOURNAL_STREAM");
    dup2(savedStderr.get(), 2);
    EXPECT_EQ(pipe.drain(), expected);
}

struct levels_row_t {
    const char* text;
    const char* error;  // null when the text applies
    int global;
    std::optional<int> zone;
};

TEST(TraceLevels, ApplyWholeOrNotAtAll) {
    const levels_row_t rows[] = {
        {"default 300\nscheduler_plugin 500\n", nullptr, 300, 500},
        {"# comment\n\n  default\t100  \r\n", nullptr, 100, std::nullopt},
        // Nothing of a text with an error applies, not even its good lines.
        {"default 300\nscheduler_plugin loud\n",
         "line 2: the level 'loud' is not a number from 0 up", 200, std::nullopt},
        {"default 300\n\nscheduler_plugin\n", "line 3: expected a name and a level", 200,
         std::nullopt},
        {"default -1", "line 1: the level '-1' is not a number from 0 up", 200, std::nullopt},
    };
    for (const levels_row_t& row : rows) {
        tolvTraceReset();
        const std::optional<std::string> error = tolvTraceApplyLevels(row.text);
        EXPECT_EQ(error.value_or("-"), row.error ? row.error : "-") << row.text;
        EXPECT_EQ(tolvTraceLevel(), row.global) << row.text;
        EXPECT_EQ(tolvTraceZoneLevel("scheduler_plugin"), row.zone) << row.text;
    }
    tolvTraceReset();
}

}  // namespace
