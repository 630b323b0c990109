// The data model: loading, instances, pending values, observers, destroy
// handlers, lookups and paths.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "orv/error.h"
#include "orv/object.h"
#include "orv/variant.h"

namespace {

using strings_t = std::vector<std::string>;

const char* const kModel = R"({"objects": [{"name": "Scheduler",
  "parameters": [{"name": "Version", "type": "string", "default": "1"}],
  "objects": [{"name": "Types", "template": true,
    "parameters": [{"name": "Type", "type": "string"},
                   {"name": "States", "type": "string", "default": "on,off"},
                   {"name": "Level", "type": "uint32"}, {"name": "Enable", "type": "bool"},
                   {"name": "Changed", "type": "datetime"}],
    "objects": [{"name": "Schedules", "template": true},
                {"name": "Info", "parameters": [{"name": "Note", "type": "string"}]}]}]}]})";

class recorder_t : public object_observer_t {
  public:
    static std::string path(object_t& o) { return object_path(&o, 0); }
    void instanceAdded(object_t& o) override { events.push_back("added " + path(o)); }
    void instanceRemoved(object_t& o) override { events.push_back("removed " + path(o)); }
    void parametersChanged(object_t& o, const strings_t& names) override {
        events.push_back("changed " + path(o));
        for (const auto& name : names) {
            events.back() += " " + name;
        }
    }
    strings_t events;
};

strings_t* g_log = nullptr;

void logDestroy(object_t* object) {
    g_log->push_back("destroy " + object_path(object, 0));
}

// User data that logs its release, so the log shows it follows the handler.
struct tracked_t {
    explicit tracked_t(std::string n) : name(std::move(n)) {}
    ~tracked_t() { g_log->push_back("release " + name); }
    std::string name;
};

class DataModel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log = &log;
        auto error = model->load(kModel);
        ASSERT_FALSE(error.has_value()) << *error;
        model->setObserver(&observer);
        scheduler = model->root()->child("Scheduler");
        types = scheduler->child("Types");
    }

    static object_t* add(object_t* templateObject, const char* key, bool commit = true) {
        auto name = key ? std::optional<std::string_view>(key) : std::nullopt;
        object_t* instance = object_createInstance(templateObject, -1, name);
        EXPECT_NE(instance, nullptr) << (key ? key : "(automatic)");
        if (instance && commit) {
            EXPECT_TRUE(object_commit(instance));
        }
        return instance;
    }
    static strings_t keys(object_t* templateObject) {
        strings_t out;
        for (object_t* o = object_firstInstance(templateObject); o; o = object_nextInstance(o)) {
            out.push_back(o->name());
        }
        return out;
    }
    // Logs the destruction of the object and the release of its user data.
    static object_t* watch(object_t* object) {
        EXPECT_TRUE(object_setDestroyHandler(object, logDestroy));
        object_setUserData(object, std::make_unique<tracked_t>(object->name()));
        return object;
    }

    strings_t log;  // declared before the model, which logs into it when it goes
    recorder_t observer;
    std::unique_ptr<datamodel_t> model = std::make_unique<datamodel_t>();
    object_t* scheduler = nullptr;
    object_t* types = nullptr;
};

TEST_F(DataModel, LoadFileIsAllOrNothingAndNamesTheFile) {
    // One file per process: test binaries may run side by side.
    std::string path =
        ::testing::TempDir() + "orv_definition_test_" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << R"({"objects": [{"name": "Other"}, {"name": "Scheduler"}]})";
    EXPECT_EQ(model->loadFile(path), path + ": objects[1]: object \"Scheduler\" exists already");
    EXPECT_EQ(model->root()->child("Other"), nullptr);
    std::ofstream(path) << R"({"objects": [{"name": "Other"}]})";
    EXPECT_EQ(model->loadFile(path), std::nullopt);
    EXPECT_NE(model->root()->child("Other"), nullptr);
    std::remove(path.c_str());
    EXPECT_NE(model->loadFile(path).value_or("").find(path), std::string::npos);
}

TEST_F(DataModel, InstanceKeysAreUniqueAndWalksKeepCreationOrder) {
    auto refused = [&](std::int64_t index, const char* key, std::uint32_t error) {
        orv_setError(orv_error_none);
        return object_createInstance(types, index, key) == nullptr && orv_error() == error;
    };
    object_t* light = add(types, "Light", false);  // index 1, pending
    add(types, nullptr, false);                    // "2"
    EXPECT_TRUE(refused(-1, "Light", orv_error_duplicate));
    EXPECT_TRUE(refused(1, "Other", orv_error_duplicate));
    ASSERT_NE(object_createInstance(types, 10, std::nullopt), nullptr);
    add(types, "12", false);                              // index 11
    EXPECT_EQ(add(types, nullptr, false)->name(), "13");  // index 12 would be named "12"
    EXPECT_TRUE(refused(-1, "13", orv_error_duplicate));
    EXPECT_TRUE(refused(-1, "a.b", orv_error_invalid_argument));
    EXPECT_TRUE(refused(-1, "", orv_error_invalid_argument));
    EXPECT_TRUE(refused(0, "zero", orv_error_invalid_argument));
    EXPECT_EQ(object_createInstance(scheduler, -1, "x"), nullptr);
    EXPECT_FALSE(object_delete(scheduler));
    ASSERT_TRUE(object_commit(types));
    ASSERT_TRUE(object_delete(types->instance("10")));
    ASSERT_TRUE(object_delete(light));
    ASSERT_TRUE(object_rollback(light));  // unmarks it
    // A deleted instance keeps its key and its place until the commit.
    EXPECT_TRUE(refused(-1, "10", orv_error_duplicate));
    EXPECT_EQ(keys(types), (strings_t{"Light", "2", "10", "12", "13"}));
    ASSERT_TRUE(object_commit(types));
    add(types, "10");
    EXPECT_EQ(keys(types), (strings_t{"Light", "2", "12", "13", "10"}));
}

TEST_F(DataModel, InstancesHoldTheirTemplateAndValuesStayPending) {
    object_t* light = add(types, "Light");
    EXPECT_EQ(*object_parameterValue(light, "States"), variant_t("on,off"));
    EXPECT_NE(object_parameterValue(light->child("Info"), "Note"), nullptr);
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "A"));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("A"));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Type"), variant_t(""));
    ASSERT_TRUE(object_rollback(light));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t(""));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "B"));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "C"));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Type"), variant_t("C"));
}

TEST_F(DataModel, SettersConvertToTheDeclaredType) {
    object_t* light = add(types, "Light");
    const std::vector<std::tuple<const char*, variant_t, bool, variant_t>> rows = {
        // parameter, value set, accepted, value read afterwards
        {"Level", variant_t("12"), true, variant_t(std::uint32_t{12})},
        {"Level", variant_t("-1"), false, variant_t(std::uint32_t{12})},
        {"Type", variant_t(std::uint32_t{5}), true, variant_t("5")},
        {"Enable", variant_t("yes"), true, variant_t(true)},
        {"Enable", variant_t("maybe"), false, variant_t(true)},
        {"Changed", variant_t("2023-11-14T01:00:00Z"), true, variant_t::dateTime(1699923600)},
    };
    for (const auto& [parameter, value, accepted, expected] : rows) {
        SCOPED_TRACE(std::string(parameter) + " = " + variant_toJSON(&value));
        orv_setError(orv_error_none);
        EXPECT_EQ(object_parameterSetValue(light, parameter, &value), accepted);
        EXPECT_EQ(orv_error(), accepted ? orv_error_none : orv_error_invalid_value);
        EXPECT_EQ(*object_parameterValue(light, parameter), expected);
    }
    EXPECT_FALSE(object_parameterSetUInt32Value(light, "Nope", 1));
    EXPECT_EQ(orv_error(), orv_error_not_found);
}

TEST_F(DataModel, ObserverSeesRealCommittedChangesOnly) {
    ASSERT_TRUE(object_rollback(add(types, "RolledBack", false)));
    object_t* neverCommitted = add(types, "Gone", false);
    ASSERT_TRUE(object_delete(neverCommitted));
    ASSERT_TRUE(object_commit(neverCommitted));
    object_t* light = add(types, "Light", false);
    // A schedule committed below a pending type waits for the type.
    object_t* s1 = add(light->child("Schedules"), "s1");
    ASSERT_TRUE(object_commit(light));
    EXPECT_TRUE(s1->isCommitted());
    // An unchanged value and a write back to the committed value are no
    // change; changed names come in definition order.
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", ""));
    ASSERT_TRUE(object_commit(light));
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 3));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Dimmer"));
    ASSERT_TRUE(object_commit(light));
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 4));
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 3));
    ASSERT_TRUE(object_commit(light));
    ASSERT_TRUE(object_parameterSetCharValue(scheduler, "Version", "2"));
    ASSERT_TRUE(object_commit(scheduler));
    ASSERT_TRUE(object_delete(light));
    EXPECT_EQ(observer.events.size(), 4u);
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(observer.events,
              (strings_t{"added Scheduler.Types.Light", "added Scheduler.Types.Light.Schedules.s1",
                         "changed Scheduler.Types.Light Type Level", "changed Scheduler Version",
                         "removed Scheduler.Types.Light"}));
}

TEST_F(DataModel, DeletedSubtreeIsDestroyedOnceChildrenFirst) {
    object_t* light = watch(add(types, "Light"));
    watch(add(light->child("Schedules"), "s1"));
    watch(add(light->child("Schedules"), "s2"));
    watch(add(types, "Dimmer"));
    object_setUserData(light, std::make_unique<tracked_t>("Light2"));  // releases "Light"
    observer.events.clear();
    ASSERT_TRUE(object_delete(light));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(log, (strings_t{"release Light", "destroy Scheduler.Types.Light.Schedules.s1",
                              "release s1", "destroy Scheduler.Types.Light.Schedules.s2",
                              "release s2", "destroy Scheduler.Types.Light", "release Light2"}));
    EXPECT_EQ(observer.events, (strings_t{"removed Scheduler.Types.Light"}));
    log.clear();
    model.reset();
    EXPECT_EQ(log, (strings_t{"destroy Scheduler.Types.Dimmer", "release Dimmer"}));
}

TEST_F(DataModel, RollbackAndClearDestroyWithoutTheObserver) {
    object_t* light = watch(add(types, "Light", false));
    watch(add(light->child("Schedules"), "s1", false));
    ASSERT_TRUE(object_rollback(light));
    EXPECT_EQ(log, (strings_t{"destroy Scheduler.Types.Light.Schedules.s1", "release s1",
                              "destroy Scheduler.Types.Light", "release Light"}));
    EXPECT_EQ(object_firstInstance(types), nullptr);
    log.clear();
    watch(add(types, "Committed"));
    watch(add(types, "Pending", false));
    observer.events.clear();
    model->clear();
    EXPECT_EQ(log, (strings_t{"destroy Scheduler.Types.Committed", "release Committed",
                              "destroy Scheduler.Types.Pending", "release Pending"}));
    EXPECT_TRUE(model->root()->children().empty());
    model.reset();
    EXPECT_EQ(log.size(), 4u);
    EXPECT_TRUE(observer.events.empty());
}

TEST_F(DataModel, GetObjectReturnsTheDeepestMatch) {
    object_t* light = add(types, "Light");
    object_t* s1 = add(light->child("Schedules"), "s1");
    const std::vector<std::tuple<object_t*, const char*, object_t*, bool>> rows = {
        {model->root(), "Scheduler.Types.Light.Schedules.s1", s1, true},
        {light, "Schedules.s1", s1, true},
        {scheduler, "", scheduler, true},
        {scheduler, "Types.Light.Nothing.s1", light, false},
        {scheduler, "Types.Dimmer", types, false},
        {scheduler, "Nothing.Types", nullptr, false},
    };
    for (const auto& [parent, path, expected, fullMatch] : rows) {
        bool match = !fullMatch;
        EXPECT_EQ(object_getObject(parent, path, 0, &match), expected) << path;
        EXPECT_EQ(match, fullMatch) << path;
    }
}

}  // namespace
