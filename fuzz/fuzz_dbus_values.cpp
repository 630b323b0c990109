// Guards the D-Bus value readers of liborv-dbus, which take whatever a peer on
// the bus sends. sd-bus offers no way to parse raw bytes into a message, so
// the input is a program that builds one: a type tree drawn from all basic
// types and containers (arrays, dict entries with any basic key, structs,
// variants nested past the readers' depth limit, empty arrays), then the
// values. The readers must never fail in any other way than by a negative
// result that leaves the output empty, and a value they read must come back
// the same after it is written with the library's own writers and read again.
//
// An input whose first byte is odd also checks that path escaping round-trips.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "fuzz_support.h"
#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace {

using message_ptr = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

// sd-bus refuses to make messages on a bus that was never started, so the
// bus is started once on a socket pair that nobody reads.
sd_bus* bus = nullptr;

message_ptr newMessage() {
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_signal(bus, &m, "/t", "org.example.Fuzz", "S") < 0) {
        std::fprintf(stderr, "cannot create a message\n");
        std::abort();
    }
    return message_ptr(m, sd_bus_message_unref);
}

bool seal(sd_bus_message* m) {
    return sd_bus_message_seal(m, 1, 0) >= 0 && sd_bus_message_rewind(m, 1) >= 0;
}

// A D-Bus type: a basic code, 'a' with one element type, '{' with a key and
// a value type, '(' with its fields, or 'v', whose content type is drawn
// when a value is written.
struct type_t {
    char code;
    std::vector<type_t> inner;
};

std::string signatureOf(const type_t& type) {
    switch (type.code) {
        case 'a':
            return "a" + signatureOf(type.inner[0]);
        case '{':
            return "{" + signatureOf(type.inner[0]) + signatureOf(type.inner[1]) + "}";
        case '(': {
            std::string text = "(";
            for (const type_t& field : type.inner) {
                text += signatureOf(field);
            }
            return text + ")";
        }
        default:
            return std::string(1, type.code);
    }
}

constexpr char kBasic[] = "ybnqiuxtdsog";
constexpr int kMaxTypeDepth = 12;
// Enough to pass the readers' 64 levels and sd-bus' own limit.
constexpr int kMaxVariantChain = 140;
constexpr int kMaxValues = 600;

class builder_t {
  public:
    builder_t(FuzzedDataProvider& in, sd_bus_message* m) : in_(in), m_(m) {}

    type_t basicType() { return type_t{kBasic[in_.ConsumeIntegralInRange(0, 11)], {}}; }

    type_t anyType(int depth) {
        const int choice = depth >= kMaxTypeDepth ? 0 : in_.ConsumeIntegralInRange(0, 7);
        switch (choice) {
            case 4:
                return type_t{'a', {anyType(depth + 1)}};
            case 5: {
                type_t entry{'{', {basicType(), anyType(depth + 1)}};
                return type_t{'a', {entry}};
            }
            case 6: {
                type_t fields{'(', {}};
                const int count = in_.ConsumeIntegralInRange(1, 3);
                for (int i = 0; i < count; ++i) {
                    fields.inner.push_back(anyType(depth + 1));
                }
                return fields;
            }
            case 7:
                return type_t{'v', {}};
            default:
                return basicType();
        }
    }

    // Appends one value of the type; a negative result ends the input
    // (sd-bus refuses broken UTF-8, bad object paths and oversized types).
    int append(const type_t& type, int depth) {
        if (++values_ > kMaxValues) {
            return -E2BIG;
        }
        switch (type.code) {
            case 'a':
                return appendArray(type, depth);
            case '{':
            case '(':
                return appendFields(type, depth);
            case 'v':
                return appendVariant(depth);
            default:
                return appendBasic(type.code);
        }
    }

  private:
    int appendArray(const type_t& type, int depth) {
        int r = sd_bus_message_open_container(m_, 'a', signatureOf(type.inner[0]).c_str());
        const int count = in_.ConsumeIntegralInRange(0, 6);
        for (int i = 0; r >= 0 && i < count && in_.remaining_bytes() > 0; ++i) {
            r = append(type.inner[0], depth + 1);
        }
        return r < 0 ? r : sd_bus_message_close_container(m_);
    }

    int appendFields(const type_t& type, int depth) {
        std::string contents;
        for (const type_t& field : type.inner) {
            contents += signatureOf(field);
        }
        int r = sd_bus_message_open_container(m_, type.code == '{' ? 'e' : 'r', contents.c_str());
        for (std::size_t i = 0; r >= 0 && i < type.inner.size(); ++i) {
            r = append(type.inner[i], depth + 1);
        }
        return r < 0 ? r : sd_bus_message_close_container(m_);
    }

    // Either a chain of variants around a value (long enough, now and then,
    // to pass every depth limit) or one variant holding any type.
    int appendVariant(int depth) {
        if (in_.ConsumeIntegralInRange(0, 7) == 0) {
            const int chain = in_.ConsumeIntegralInRange(1, kMaxVariantChain);
            return appendChain(chain, depth);
        }
        type_t content = anyType(depth + 1);
        int r = sd_bus_message_open_container(m_, 'v', signatureOf(content).c_str());
        r = r < 0 ? r : append(content, depth + 1);
        return r < 0 ? r : sd_bus_message_close_container(m_);
    }

    int appendChain(int count, int depth) {
        if (count == 0) {
            return appendBasic('s');
        }
        int r = sd_bus_message_open_container(m_, 'v', count == 1 ? "s" : "v");
        r = r < 0 ? r : appendChain(count - 1, depth + 1);
        return r < 0 ? r : sd_bus_message_close_container(m_);
    }

    std::string objectPath() {
        static constexpr const char* kPaths[] = {"/", "/Scheduler", "/Scheduler/Types/Light",
                                                 "/A/_/B", "/Caf_c3_a9/1_202"};
        if (in_.ConsumeBool()) {
            return kPaths[in_.ConsumeIntegralInRange<std::size_t>(0, 4)];
        }
        return in_.ConsumeRandomLengthString(32);
    }

    std::string signature() {
        static constexpr const char* kSignatures[] = {"", "a{sv}", "v", "(ii)as", "aa{yv}"};
        if (in_.ConsumeBool()) {
            return kSignatures[in_.ConsumeIntegralInRange<std::size_t>(0, 4)];
        }
        return in_.ConsumeRandomLengthString(16);
    }

    template <typename T>
    int appendNumber(char code, T value) {
        return sd_bus_message_append_basic(m_, code, &value);
    }

    int appendBasic(char code) {
        switch (code) {
            case 'y':
                return appendNumber(code, in_.ConsumeIntegral<std::uint8_t>());
            case 'b':
                return appendNumber(code, static_cast<int>(in_.ConsumeIntegralInRange(0, 2)));
            case 'n':
                return appendNumber(code, in_.ConsumeIntegral<std::int16_t>());
            case 'q':
                return appendNumber(code, in_.ConsumeIntegral<std::uint16_t>());
            case 'i':
                return appendNumber(code, in_.ConsumeIntegral<std::int32_t>());
            case 'u':
                return appendNumber(code, in_.ConsumeIntegral<std::uint32_t>());
            case 'x':
                return appendNumber(code, in_.ConsumeIntegral<std::int64_t>());
            case 't':
                return appendNumber(code, in_.ConsumeIntegral<std::uint64_t>());
            case 'd': {
                fuzz::value_source_t source(in_, 0);
                return appendNumber(code, source.doubleValue());
            }
            case 'o':
                return sd_bus_message_append_basic(m_, code, objectPath().c_str());
            case 'g':
                return sd_bus_message_append_basic(m_, code, signature().c_str());
            default:
                return sd_bus_message_append_basic(m_, 's',
                                                   in_.ConsumeRandomLengthString(48).c_str());
        }
    }

    FuzzedDataProvider& in_;
    sd_bus_message* m_;
    int values_ = 0;
};

// Writes a value that was read, reads it back and compares. Writing may
// refuse a value that reading took: a list costs two levels per level when
// written ("v" then "av") but an array of a basic type only one when read.
void checkValueRoundTrip(const variant_t& value) {
    message_ptr m = newMessage();
    const int written = orv_dbus_appendVariant(m.get(), value);
    if (written == -ELOOP) {
        return;
    }
    FUZZ_REQUIRE(written == 0);
    FUZZ_REQUIRE(seal(m.get()));
    variant_t back(variant_t("stale"));
    FUZZ_REQUIRE(orv_dbus_readVariant(m.get(), &back) == 0);
    FUZZ_REQUIRE(fuzz::sameValue(back, value));
    FUZZ_REQUIRE(sd_bus_message_at_end(m.get(), 1) > 0);
}

void checkMapRoundTrip(const variant_map_t& map) {
    message_ptr m = newMessage();
    const int written = orv_dbus_appendMap(m.get(), map);
    if (written == -ELOOP) {
        return;
    }
    FUZZ_REQUIRE(written == 0);
    FUZZ_REQUIRE(seal(m.get()));
    variant_map_t back = {variant_map_entry_t{"stale", variant_t(true)}};
    FUZZ_REQUIRE(orv_dbus_readMap(m.get(), &back) == 0);
    FUZZ_REQUIRE(fuzz::sameValue(variant_t(back), variant_t(map)));
    FUZZ_REQUIRE(sd_bus_message_at_end(m.get(), 1) > 0);
}

// Reads the message with the three readers in an order the input picks,
// also after a failed read has left the message part-way into a container.
void readAll(FuzzedDataProvider& in, sd_bus_message* m) {
    for (int step = 0; step < 8; ++step) {
        const int reader = in.ConsumeIntegralInRange(0, 2);
        if (reader == 2) {
            variant_map_t map = {variant_map_entry_t{"stale", variant_t(true)}};
            const int r = orv_dbus_readMap(m, &map);
            FUZZ_REQUIRE(r <= 0);
            if (r < 0) {
                FUZZ_REQUIRE(map.empty());
            } else {
                checkMapRoundTrip(map);
            }
            continue;
        }
        variant_t value("stale");
        const int r = reader == 0 ? orv_dbus_readValue(m, &value) : orv_dbus_readVariant(m, &value);
        FUZZ_REQUIRE(r <= 0);
        if (r < 0) {
            FUZZ_REQUIRE(value.type() == variant_type_unknown);
        } else {
            FUZZ_REQUIRE(value.type() != variant_type_unknown);
            checkValueRoundTrip(value);
        }
    }
}

// Escaping is reversible for every label and path, and gives valid object
// paths.
void checkPaths(FuzzedDataProvider& in) {
    const std::string label = in.ConsumeRandomLengthString(64);
    const std::string escaped = orv_dbus_escapeLabel(label);
    FUZZ_REQUIRE(!escaped.empty());
    FUZZ_REQUIRE(orv_dbus_unescapeLabel(escaped) == label);

    const std::string path = in.ConsumeRandomLengthString(96);
    const std::string objectPath = orv_dbus_objectPath(path);
    FUZZ_REQUIRE(sd_bus_object_path_is_valid(objectPath.c_str()));
    FUZZ_REQUIRE(orv_dbus_dataModelPath(objectPath) == path);

    // Any text as an object path: what comes back maps to that same path.
    const std::string text = in.ConsumeRandomLengthString(96);
    if (std::optional<std::string> back = orv_dbus_dataModelPath(text)) {
        const std::string again = orv_dbus_objectPath(*back);
        if (again != text) {
            std::fprintf(stderr, "object path \"%s\" -> data-model path \"%s\" -> \"%s\"\n",
                         text.c_str(), back->c_str(), again.c_str());
        }
        FUZZ_REQUIRE(again == text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) < 0 ||
        sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fds[0], fds[1]) < 0 || sd_bus_start(bus) < 0) {
        std::fprintf(stderr, "cannot start a bus on a socket pair\n");
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    FuzzedDataProvider in(data + 1, size - 1);
    if (data[0] % 2 == 1) {
        checkPaths(in);
    }
    message_ptr m = newMessage();
    builder_t builder(in, m.get());
    const type_t variant{'v', {}};
    const type_t map{'a', {type_t{'{', {type_t{'s', {}}, variant}}}};
    const int count = in.ConsumeIntegralInRange(1, 4);
    for (int i = 0; i < count; ++i) {
        // Top-level values are mostly variants and maps, as on the bus.
        const int shape = in.ConsumeIntegralInRange(0, 3);
        const type_t type = shape == 0 ? builder.anyType(0) : shape == 1 ? map : variant;
        if (builder.append(type, 0) < 0) {
            return 0;
        }
    }
    if (!seal(m.get())) {
        return 0;
    }
    readAll(in, m.get());
    return 0;
}
