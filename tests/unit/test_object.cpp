// The data model: loading, instances, pending values, observers, destroy
// handlers, lookups and paths.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "orv/definition.h"
#include "orv/error.h"
#include "orv/object.h"
#include "orv/variant.h"

namespace {

const char* const kModel = R"({
  "objects": [
    {
      "name": "Scheduler",
      "parameters": [ { "name": "Version", "type": "string", "default": "1" },
                      { "name": "Count", "type": "uint32" } ],
      "objects": [
        { "name": "Types", "template": true,
          "parameters": [ { "name": "Type", "type": "string" },
                          { "name": "Path", "type": "string" },
                          { "name": "States", "type": "string", "default": "on,off" },
                          { "name": "Level", "type": "uint32" },
                          { "name": "Changed", "type": "datetime" } ],
          "objects": [
            { "name": "Schedules", "template": true,
              "parameters": [ { "name": "ID", "type": "string" },
                              { "name": "Enable", "type": "bool" } ] },
            { "name": "Info", "parameters": [ { "name": "Note", "type": "string" } ] }
          ] },
        { "name": "Config", "parameters": [ { "name": "Mode", "type": "string" } ] }
      ]
    }
  ]
})";

struct event_t {
    std::string kind;
    std::string path;
    std::vector<std::string> names;
};

class recorder_t : public object_observer_t {
  public:
    void instanceAdded(object_t& instance) override {
        events.push_back({"added", object_path(&instance, 0), {}});
    }
    void instanceRemoved(object_t& instance) override {
        events.push_back({"removed", object_path(&instance, 0), {}});
    }
    void parametersChanged(object_t& object, const std::vector<std::string>& names) override {
        events.push_back({"changed", object_path(&object, 0), names});
    }
    std::vector<event_t> events;
};

std::vector<std::string>* g_log = nullptr;

void logDestroy(object_t* object) {
    if (g_log) {
        g_log->push_back("destroy " + object_path(object, 0));
    }
}

// User data that logs its release and whether the destroy handler ran first.
struct tracked_t {
    explicit tracked_t(std::string n) : name(std::move(n)) {}
    ~tracked_t() {
        if (g_log) {
            g_log->push_back("release " + name);
        }
    }
    std::string name;
};

class DataModel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_log = &log;
        model = std::make_unique<datamodel_t>();
        auto error = model->load(kModel);
        ASSERT_FALSE(error.has_value()) << *error;
        model->setObserver(&observer);
        bool match = false;
        scheduler = object_getObject(model->root(), "Scheduler", 0, &match);
        types = object_getObject(model->root(), "Scheduler.Types", 0, &match);
        ASSERT_NE(scheduler, nullptr);
        ASSERT_NE(types, nullptr);
    }
    void TearDown() override {
        model.reset();
        g_log = nullptr;
    }

    object_t* addType(const char* key, bool commit = true) {
        object_t* instance = object_createInstance(types, -1, key);
        EXPECT_NE(instance, nullptr) << key;
        if (instance && commit) {
            EXPECT_TRUE(object_commit(instance));
        }
        return instance;
    }

    object_t* addSchedule(object_t* type, const char* key, bool commit = true) {
        bool match = false;
        object_t* schedules = object_getObject(type, "Schedules", 0, &match);
        EXPECT_TRUE(match);
        object_t* instance = object_createInstance(schedules, -1, key);
        EXPECT_NE(instance, nullptr) << key;
        if (instance && commit) {
            EXPECT_TRUE(object_commit(instance));
        }
        return instance;
    }

    std::vector<std::string> keys(object_t* templateObject) {
        std::vector<std::string> out;
        for (object_t* o = object_firstInstance(templateObject); o; o = object_nextInstance(o)) {
            out.push_back(o->name());
        }
        return out;
    }

    std::vector<std::string> log;
    recorder_t observer;
    std::unique_ptr<datamodel_t> model;
    object_t* scheduler = nullptr;
    object_t* types = nullptr;
};

// ------------------------------------------------------------------ loading

TEST_F(DataModel, LoadCreatesPlainObjectsAndTemplates) {
    EXPECT_EQ(scheduler->kind(), object_t::kind_t::plain);
    EXPECT_EQ(types->kind(), object_t::kind_t::template_object);
    EXPECT_TRUE(types->parameters().empty());
    EXPECT_TRUE(types->children().empty());
    EXPECT_EQ(object_instanceCount(types), 0u);
    ASSERT_EQ(scheduler->children().size(), 2u);
    EXPECT_EQ(scheduler->children()[0]->name(), "Types");
    EXPECT_EQ(scheduler->children()[1]->name(), "Config");
    ASSERT_NE(object_parameterValue(scheduler, "Version"), nullptr);
    EXPECT_EQ(*object_parameterValue(scheduler, "Version"), variant_t("1"));
    EXPECT_EQ(*object_parameterValue(scheduler, "Count"), variant_t(std::uint32_t{0}));
    EXPECT_EQ(model->definitions().size(), 1u);
}

TEST_F(DataModel, SecondRootWithAnExistingNameIsRefused) {
    auto error = model->load(R"({"objects":[{"name":"Other"},{"name":"Scheduler"}]})");
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->find("\"Scheduler\" exists already"), std::string::npos) << *error;
    bool match = true;
    EXPECT_EQ(object_getObject(model->root(), "Other", 0, &match), nullptr);
    EXPECT_EQ(model->definitions().size(), 1u);

    EXPECT_FALSE(model->load(R"({"objects":[{"name":"Time"}]})").has_value());
    EXPECT_NE(object_getObject(model->root(), "Time", 0, &match), nullptr);
    EXPECT_EQ(model->definitions().size(), 2u);
}

TEST_F(DataModel, LoadReportsDefinitionErrors) {
    auto error =
        model->load(R"({"objects":[{"name":"X","parameters":[{"name":"p","type":"strng"}]}]})");
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(*error, "objects[0].parameters[0]: unknown type \"strng\"");
}

TEST(DataModelFile, ReadsAFileAndReportsUnreadableOnes) {
    datamodel_t model;
    auto error = model.loadFile("/nonexistent/definition.json");
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->find("/nonexistent/definition.json"), std::string::npos) << *error;

    std::string path = ::testing::TempDir() + "orv_definition_test.json";
    {
        std::ofstream file(path);
        file << kModel;
    }
    error = model.loadFile(path);
    EXPECT_FALSE(error.has_value()) << *error;
    bool match = false;
    EXPECT_NE(object_getObject(model.root(), "Scheduler.Config", 0, &match), nullptr);
    EXPECT_TRUE(match);
    std::remove(path.c_str());
}

// ---------------------------------------------------------------- instances

TEST_F(DataModel, InstancesGetIndicesKeysParametersAndChildren) {
    object_t* first = object_createInstance(types, -1, std::nullopt);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->name(), "1");
    EXPECT_EQ(first->kind(), object_t::kind_t::instance);
    EXPECT_FALSE(first->isCommitted());
    object_t* light = object_createInstance(types, -1, "Light");
    ASSERT_NE(light, nullptr);
    object_t* third = object_createInstance(types, -1, std::nullopt);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->name(), "3");
    object_t* ten = object_createInstance(types, 10, std::nullopt);
    ASSERT_NE(ten, nullptr);
    EXPECT_EQ(ten->name(), "10");
    object_t* next = object_createInstance(types, -1, std::nullopt);
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->name(), "11");

    // Parameters with their defaults and the objects of the template.
    ASSERT_EQ(light->parameters().size(), 5u);
    EXPECT_EQ(*object_parameterValue(light, "States"), variant_t("on,off"));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t(""));
    ASSERT_EQ(light->children().size(), 2u);
    EXPECT_EQ(light->children()[0]->kind(), object_t::kind_t::template_object);
    EXPECT_EQ(light->children()[1]->kind(), object_t::kind_t::plain);
    EXPECT_EQ(object_parent(light), types);

    // Visible at once, in creation order.
    EXPECT_EQ(keys(types), (std::vector<std::string>{"1", "Light", "3", "10", "11"}));
    EXPECT_EQ(object_instanceCount(types), 5u);
    EXPECT_EQ(types->instance("Light"), light);
    bool match = false;
    EXPECT_EQ(object_getObject(scheduler, "Types.Light", 0, &match), light);
    EXPECT_TRUE(match);
    EXPECT_TRUE(observer.events.empty());
}

TEST_F(DataModel, TakenIndicesAndKeysAreRefused) {
    object_t* light = object_createInstance(types, -1, "Light");
    ASSERT_NE(light, nullptr);  // index 1, pending

    orv_setError(orv_error_none);
    EXPECT_EQ(object_createInstance(types, -1, "Light"), nullptr);
    EXPECT_EQ(orv_error(), orv_error_duplicate);
    EXPECT_EQ(object_createInstance(types, 1, "Other"), nullptr);  // index 1 is taken

    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(object_createInstance(types, -1, "Light"), nullptr);
    EXPECT_EQ(orv_error(), orv_error_duplicate);

    // Deleted but not yet committed: the key is still taken.
    ASSERT_TRUE(object_delete(light));
    EXPECT_EQ(object_createInstance(types, -1, "Light"), nullptr);
    EXPECT_EQ(orv_error(), orv_error_duplicate);
    ASSERT_TRUE(object_commit(light));
    EXPECT_NE(object_createInstance(types, -1, "Light"), nullptr);

    // Light now has index 2. A key that is the name the next automatic index
    // would take makes that index skip it.
    ASSERT_NE(object_createInstance(types, -1, "4"), nullptr);  // index 3
    object_t* automatic = object_createInstance(types, -1, std::nullopt);
    ASSERT_NE(automatic, nullptr);
    EXPECT_EQ(automatic->name(), "5");
    EXPECT_EQ(object_createInstance(types, 3, std::nullopt), nullptr);  // index 3 is taken
    EXPECT_EQ(orv_error(), orv_error_duplicate);
    EXPECT_EQ(object_createInstance(types, 7, "5"), nullptr);  // key "5" is taken
    EXPECT_EQ(orv_error(), orv_error_duplicate);

    // Malformed keys and indices, and objects that are not templates.
    EXPECT_EQ(object_createInstance(types, -1, "a.b"), nullptr);
    EXPECT_EQ(object_createInstance(types, -1, ""), nullptr);
    EXPECT_EQ(object_createInstance(types, 0, "zero"), nullptr);
    EXPECT_EQ(object_createInstance(types, -2, "minus"), nullptr);
    EXPECT_EQ(object_createInstance(scheduler, -1, "x"), nullptr);
    EXPECT_EQ(object_createInstance(nullptr, -1, "x"), nullptr);
    EXPECT_EQ(keys(types), (std::vector<std::string>{"Light", "4", "5"}));
}

TEST_F(DataModel, DeleteNeedsAnInstance) {
    orv_setError(orv_error_none);
    EXPECT_FALSE(object_delete(scheduler));
    EXPECT_EQ(orv_error(), orv_error_not_an_instance);
    EXPECT_FALSE(object_delete(types));
    EXPECT_FALSE(object_delete(nullptr));
}

TEST_F(DataModel, WalksKeepCreationOrderAcrossDeletions) {
    for (const char* key : {"a", "b", "c", "d", "e"}) {
        addType(key);
    }
    ASSERT_TRUE(object_delete(types->instance("b")));
    ASSERT_TRUE(object_delete(types->instance("d")));
    // Marked instances stay visible until the commit.
    EXPECT_EQ(keys(types), (std::vector<std::string>{"a", "b", "c", "d", "e"}));
    ASSERT_TRUE(object_commit(types->instance("b")));
    ASSERT_TRUE(object_commit(types->instance("d")));
    EXPECT_EQ(keys(types), (std::vector<std::string>{"a", "c", "e"}));
    addType("f");
    addType("b");
    EXPECT_EQ(keys(types), (std::vector<std::string>{"a", "c", "e", "f", "b"}));
    EXPECT_EQ(types->instance("d"), nullptr);
    EXPECT_EQ(object_nextInstance(types->instance("b")), nullptr);
    EXPECT_EQ(object_nextInstance(scheduler), nullptr);
    EXPECT_EQ(object_firstInstance(scheduler), nullptr);
}

TEST_F(DataModel, RollbackUnmarksADeletedInstance) {
    object_t* light = addType("Light");
    ASSERT_TRUE(object_delete(light));
    EXPECT_TRUE(light->isDeleted());
    ASSERT_TRUE(object_rollback(light));
    EXPECT_FALSE(light->isDeleted());
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(types->instance("Light"), light);
}

// ----------------------------------------------------------- pending values

TEST_F(DataModel, ValuesStayPendingUntilCommit) {
    object_t* light = addType("Light");
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Light"));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("Light"));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Type"), variant_t(""));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Type"), variant_t("Light"));

    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Dimmer"));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("Dimmer"));
    ASSERT_TRUE(object_rollback(light));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("Light"));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Type"), variant_t("Light"));

    // A second write replaces the first pending one.
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "A"));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "B"));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("B"));

    // Nothing pending: commit and rollback succeed.
    EXPECT_TRUE(object_commit(light));
    EXPECT_TRUE(object_rollback(light));
}

TEST_F(DataModel, SettersConvertToTheDeclaredType) {
    object_t* light = addType("Light");
    ASSERT_TRUE(object_parameterSetCharValue(light, "Level", "12"));
    EXPECT_EQ(*object_parameterValue(light, "Level"), variant_t(std::uint32_t{12}));
    orv_setError(orv_error_none);
    EXPECT_FALSE(object_parameterSetCharValue(light, "Level", "x"));
    EXPECT_EQ(orv_error(), orv_error_invalid_value);
    EXPECT_EQ(*object_parameterValue(light, "Level"), variant_t(std::uint32_t{12}));
    EXPECT_FALSE(object_parameterSetCharValue(light, "Level", "-1"));
    variant_t half(2.5);
    EXPECT_FALSE(object_parameterSetValue(light, "Level", &half));
    variant_t whole(7.0);
    EXPECT_TRUE(object_parameterSetValue(light, "Level", &whole));
    EXPECT_EQ(*object_parameterValue(light, "Level"), variant_t(std::uint32_t{7}));

    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Type", 5));
    EXPECT_EQ(*object_parameterValue(light, "Type"), variant_t("5"));
    ASSERT_TRUE(object_parameterSetBoolValue(light, "Path", true));
    EXPECT_EQ(*object_parameterValue(light, "Path"), variant_t("true"));
    std::string text = "Dev.Light";
    ASSERT_TRUE(object_parameterSetStringValue(light, "Path", &text));
    EXPECT_EQ(*object_parameterValue(light, "Path"), variant_t("Dev.Light"));
    EXPECT_FALSE(object_parameterSetStringValue(light, "Path", nullptr));

    object_t* schedule = addSchedule(light, "s1");
    EXPECT_TRUE(object_parameterSetCharValue(schedule, "Enable", "yes"));
    EXPECT_EQ(*object_parameterValue(schedule, "Enable"), variant_t(true));
    EXPECT_FALSE(object_parameterSetCharValue(schedule, "Enable", "maybe"));

    orv_setError(orv_error_none);
    EXPECT_FALSE(object_parameterSetCharValue(light, "Nope", "1"));
    EXPECT_EQ(orv_error(), orv_error_not_found);
    EXPECT_FALSE(object_parameterSetCharValue(types, "Type", "1"));  // templates have none
    EXPECT_FALSE(object_parameterSetCharValue(nullptr, "Type", "1"));
    EXPECT_EQ(object_parameterValue(light, "Nope"), nullptr);
    EXPECT_EQ(object_parameterValue(nullptr, "Type"), nullptr);
    EXPECT_EQ(object_parameterCommittedValue(light, "Nope"), nullptr);
}

// ---------------------------------------------------------------- observers

TEST_F(DataModel, ObserverSeesCommittedChangesOnly) {
    object_t* light = object_createInstance(types, -1, "Light");
    ASSERT_NE(light, nullptr);
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Light"));
    EXPECT_TRUE(observer.events.empty());
    ASSERT_TRUE(object_commit(light));
    ASSERT_EQ(observer.events.size(), 1u);
    EXPECT_EQ(observer.events[0].kind, "added");
    EXPECT_EQ(observer.events[0].path, "Scheduler.Types.Light");
    EXPECT_TRUE(light->isCommitted());
    observer.events.clear();

    // Unchanged writes are not reported; changed names come in definition order.
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Light"));
    ASSERT_TRUE(object_commit(light));
    EXPECT_TRUE(observer.events.empty());
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 3));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Type", "Light"));
    ASSERT_TRUE(object_parameterSetCharValue(light, "Path", "Dev.Light"));
    ASSERT_TRUE(object_commit(light));
    ASSERT_EQ(observer.events.size(), 1u);
    EXPECT_EQ(observer.events[0].kind, "changed");
    EXPECT_EQ(observer.events[0].path, "Scheduler.Types.Light");
    EXPECT_EQ(observer.events[0].names, (std::vector<std::string>{"Path", "Level"}));
    observer.events.clear();

    // A write back to the committed value before the commit is no change.
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 4));
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 3));
    ASSERT_TRUE(object_commit(light));
    EXPECT_TRUE(observer.events.empty());

    // Rolled-back values are never seen.
    ASSERT_TRUE(object_parameterSetUInt32Value(light, "Level", 9));
    ASSERT_TRUE(object_rollback(light));
    ASSERT_TRUE(object_commit(light));
    EXPECT_TRUE(observer.events.empty());

    // Plain objects report changes too.
    ASSERT_TRUE(object_parameterSetCharValue(scheduler, "Version", "2"));
    ASSERT_TRUE(object_commit(scheduler));
    ASSERT_EQ(observer.events.size(), 1u);
    EXPECT_EQ(observer.events[0].path, "Scheduler");
    EXPECT_EQ(observer.events[0].names, (std::vector<std::string>{"Version"}));
    observer.events.clear();

    ASSERT_TRUE(object_delete(light));
    EXPECT_TRUE(observer.events.empty());
    ASSERT_TRUE(object_commit(light));
    ASSERT_EQ(observer.events.size(), 1u);
    EXPECT_EQ(observer.events[0].kind, "removed");
    EXPECT_EQ(observer.events[0].path, "Scheduler.Types.Light");
}

TEST_F(DataModel, NeverCommittedInstancesAreNotReported) {
    object_t* light = object_createInstance(types, -1, "Light");
    ASSERT_NE(light, nullptr);
    ASSERT_TRUE(object_delete(light));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(types->instance("Light"), nullptr);
    object_t* dimmer = object_createInstance(types, -1, "Dimmer");
    ASSERT_TRUE(object_rollback(dimmer));
    EXPECT_EQ(types->instance("Dimmer"), nullptr);
    EXPECT_TRUE(observer.events.empty());
    EXPECT_EQ(object_instanceCount(types), 0u);
}

TEST_F(DataModel, InstancesBelowAPendingInstanceWaitForIt) {
    object_t* light = addType("Light", false);
    object_t* s1 = addSchedule(light, "s1", true);
    EXPECT_FALSE(s1->isCommitted());
    EXPECT_TRUE(observer.events.empty());
    ASSERT_TRUE(object_commit(light));
    ASSERT_EQ(observer.events.size(), 2u);
    EXPECT_EQ(observer.events[0].path, "Scheduler.Types.Light");
    EXPECT_EQ(observer.events[1].path, "Scheduler.Types.Light.Schedules.s1");
    EXPECT_TRUE(s1->isCommitted());
}

// ---------------------------------------------------------- destroy handlers

TEST_F(DataModel, CommittedDeletionRunsTheDestroyHandlerOnce) {
    object_t* light = addType("Light");
    ASSERT_TRUE(object_setDestroyHandler(light, logDestroy));
    object_setUserData(light, std::make_unique<tracked_t>("Light"));
    EXPECT_EQ(object_getUserData<tracked_t>(light)->name, "Light");
    ASSERT_TRUE(object_delete(light));
    EXPECT_TRUE(log.empty());
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(log, (std::vector<std::string>{"destroy Scheduler.Types.Light", "release Light"}));
    model.reset();
    EXPECT_EQ(log.size(), 2u);
}

TEST_F(DataModel, AParentIsDestroyedWithItsChildrenChildrenFirst) {
    object_t* light = addType("Light");
    object_t* s1 = addSchedule(light, "s1");
    object_t* s2 = addSchedule(light, "s2");
    object_t* dimmer = addType("Dimmer");
    for (object_t* o : {light, s1, s2, dimmer}) {
        ASSERT_TRUE(object_setDestroyHandler(o, logDestroy));
    }
    object_setUserData(s1, std::make_unique<tracked_t>("s1"));
    object_setUserData(light, std::make_unique<tracked_t>("Light"));
    observer.events.clear();
    ASSERT_TRUE(object_delete(light));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(log,
              (std::vector<std::string>{"destroy Scheduler.Types.Light.Schedules.s1", "release s1",
                                        "destroy Scheduler.Types.Light.Schedules.s2",
                                        "destroy Scheduler.Types.Light", "release Light"}));
    ASSERT_EQ(observer.events.size(), 1u);
    EXPECT_EQ(observer.events[0].kind, "removed");
    EXPECT_EQ(keys(types), (std::vector<std::string>{"Dimmer"}));
    log.clear();
    model->clear();
    EXPECT_EQ(log, (std::vector<std::string>{"destroy Scheduler.Types.Dimmer"}));
}

TEST_F(DataModel, RollbackOfANewInstanceDestroysIt) {
    object_t* light = addType("Light", false);
    object_t* s1 = addSchedule(light, "s1", false);
    ASSERT_TRUE(object_setDestroyHandler(light, logDestroy));
    ASSERT_TRUE(object_setDestroyHandler(s1, logDestroy));
    object_setUserData(light, std::make_unique<tracked_t>("Light"));
    ASSERT_TRUE(object_rollback(light));
    EXPECT_EQ(log, (std::vector<std::string>{"destroy Scheduler.Types.Light.Schedules.s1",
                                             "destroy Scheduler.Types.Light", "release Light"}));
    EXPECT_EQ(object_firstInstance(types), nullptr);
    EXPECT_TRUE(observer.events.empty());
    model.reset();
    EXPECT_EQ(log.size(), 3u);
}

TEST_F(DataModel, ClearDestroysEverythingWithoutTheObserver) {
    object_t* light = addType("Light");
    object_t* s1 = addSchedule(light, "s1");
    object_t* pending = addType("Pending", false);
    for (object_t* o : {light, s1, pending}) {
        ASSERT_TRUE(object_setDestroyHandler(o, logDestroy));
    }
    observer.events.clear();
    model->clear();
    EXPECT_EQ(log, (std::vector<std::string>{"destroy Scheduler.Types.Light.Schedules.s1",
                                             "destroy Scheduler.Types.Light",
                                             "destroy Scheduler.Types.Pending"}));
    EXPECT_TRUE(observer.events.empty());
    ASSERT_NE(model->root(), nullptr);
    EXPECT_TRUE(model->root()->children().empty());
    log.clear();
    model.reset();
    EXPECT_TRUE(log.empty());
}

TEST_F(DataModel, DestroyingTheModelRunsTheHandlers) {
    object_t* light = addType("Light");
    ASSERT_TRUE(object_setDestroyHandler(light, logDestroy));
    object_setUserData(light, std::make_unique<tracked_t>("Light"));
    model.reset();
    EXPECT_EQ(log, (std::vector<std::string>{"destroy Scheduler.Types.Light", "release Light"}));
}

TEST_F(DataModel, UserDataIsReleasedWhenReplacedOrCleared) {
    object_t* light = addType("Light");
    EXPECT_EQ(object_getUserData<tracked_t>(light), nullptr);
    object_setUserData(light, std::make_unique<tracked_t>("first"));
    object_setUserData(light, std::make_unique<tracked_t>("second"));
    EXPECT_EQ(log, (std::vector<std::string>{"release first"}));
    EXPECT_EQ(object_getUserData<tracked_t>(light)->name, "second");
    object_clearUserData(light);
    EXPECT_EQ(log, (std::vector<std::string>{"release first", "release second"}));
    EXPECT_EQ(object_getUserData<tracked_t>(light), nullptr);
}

// ------------------------------------------------------------ lookups, paths

TEST_F(DataModel, GetObjectReportsFullPartialAndNoMatch) {
    object_t* light = addType("Light");
    object_t* s1 = addSchedule(light, "s1");
    bool match = false;
    EXPECT_EQ(object_getObject(model->root(), "Scheduler.Types.Light.Schedules.s1", 0, &match), s1);
    EXPECT_TRUE(match);
    EXPECT_EQ(object_getObject(light, "Schedules.s1", 0, &match), s1);
    EXPECT_TRUE(match);

    EXPECT_EQ(object_getObject(scheduler, "Types.Light.Nothing.s1", 0, &match), light);
    EXPECT_FALSE(match);
    EXPECT_EQ(object_getObject(scheduler, "Types.Dimmer", 0, &match), types);
    EXPECT_FALSE(match);

    match = true;
    EXPECT_EQ(object_getObject(scheduler, "Nothing.Types", 0, &match), nullptr);
    EXPECT_FALSE(match);
    match = true;
    EXPECT_EQ(object_getObject(nullptr, "Types", 0, &match), nullptr);
    EXPECT_FALSE(match);

    EXPECT_EQ(object_getObject(scheduler, "", 0, &match), scheduler);
    EXPECT_TRUE(match);
}

TEST_F(DataModel, PathsAndNames) {
    object_t* light = addType("Light");
    object_t* s1 = addSchedule(light, "s1");
    EXPECT_EQ(object_path(scheduler, 0), "Scheduler");
    EXPECT_EQ(object_path(types, 0), "Scheduler.Types");
    EXPECT_EQ(object_path(light, 0), "Scheduler.Types.Light");
    EXPECT_EQ(object_path(s1, 0), "Scheduler.Types.Light.Schedules.s1");
    EXPECT_EQ(object_path(model->root(), 0), "");
    EXPECT_EQ(object_name(s1, 0), "s1");
    EXPECT_EQ(object_name(types, 0), "Types");
    orv_setError(orv_error_none);
    EXPECT_EQ(object_name(model->root(), 0), std::nullopt);
    EXPECT_EQ(orv_error(), orv_error_not_found);
    EXPECT_EQ(object_parent(scheduler), model->root());
    EXPECT_EQ(object_parent(model->root()), nullptr);
}

// --------------------------------------------------------------- date-times

class time_zone_guard_t {
  public:
    explicit time_zone_guard_t(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    ~time_zone_guard_t() {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

struct tm brokenDown(int year, int month, int day, int hour, int minute, int second, int isdst) {
    struct tm t {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = isdst;
    return t;
}

TEST_F(DataModel, DateTimeIsSetFromABrokenDownLocalTime) {
    time_zone_guard_t zone("Europe/Berlin");
    object_t* light = addType("Light");

    // Summer: CEST, UTC+2. 2023-07-01 12:00:00 local = 10:00:00Z.
    struct tm summer = brokenDown(2023, 7, 1, 12, 0, 0, -1);
    const struct tm before = summer;
    ASSERT_TRUE(object_parameterSetDateTimeValue(light, "Changed", &summer));
    EXPECT_EQ(*object_parameterValue(light, "Changed"), variant_t::dateTime(1688205600));
    EXPECT_EQ(summer.tm_isdst, before.tm_isdst);  // the caller's value is not touched
    EXPECT_EQ(summer.tm_wday, before.tm_wday);

    // Winter: CET, UTC+1. 2023-11-14 02:00:00 local = 01:00:00Z.
    struct tm winter = brokenDown(2023, 11, 14, 2, 0, 0, 0);
    ASSERT_TRUE(object_parameterSetDateTimeValue(light, "Changed", &winter));
    EXPECT_EQ(*object_parameterValue(light, "Changed"), variant_t::dateTime(1699923600));
    ASSERT_TRUE(object_commit(light));
    EXPECT_EQ(*object_parameterCommittedValue(light, "Changed"), variant_t::dateTime(1699923600));

    // The value of localtime_r goes back to the same seconds.
    std::time_t seconds = 1688205600;
    struct tm local {};
    ASSERT_NE(localtime_r(&seconds, &local), nullptr);
    ASSERT_TRUE(object_parameterSetDateTimeValue(light, "Changed", &local));
    EXPECT_EQ(*object_parameterValue(light, "Changed"), variant_t::dateTime(1688205600));

    // Only date-time parameters take it.
    orv_setError(orv_error_none);
    EXPECT_FALSE(object_parameterSetDateTimeValue(light, "Type", &winter));
    EXPECT_EQ(orv_error(), orv_error_invalid_value);
    EXPECT_FALSE(object_parameterSetDateTimeValue(light, "Nope", &winter));
    EXPECT_EQ(orv_error(), orv_error_not_found);
    EXPECT_FALSE(object_parameterSetDateTimeValue(light, "Changed", nullptr));
}

}  // namespace
