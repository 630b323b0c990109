// The bus as the plug-in sees it: a context on the in-process transport and a
// virtual loop.
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "orv/context.h"
#include "orv/error.h"
#include "orv/inproc.h"
#include "orv/notification.h"
#include "orv/request.h"
#include "orv/virtual_loop.h"

namespace {

constexpr std::int64_t kStart = 1'700'000'000'000'000;
constexpr std::uint32_t kSubscription = 0x1E41;
using Items = std::vector<std::string>;

// What a request's handlers saw; reached through the request's user data.
struct recorder_t {
    std::vector<Items> deliveries;
    int cancelled = 0;
    bool destroyInReply = false;
    bool destroyInCancel = false;
    request_t* alsoDestroy = nullptr;  // by the cancel handler
};

// Parameters as JSON, so a number sent where a text belongs shows.
std::string describe(const variant_map_t& parameters) {
    const variant_t map(parameters);
    return variant_toJSON(&map);
}

std::string describe(const reply_item_t* item) {
    const remote_object_t* object = reply_item_object(item);
    const notification_t* n = reply_item_notification(item);
    switch (reply_item_type(item)) {
        case reply_type_object:
            return "object:" + object->path + describe(object->parameters);
        case reply_type_notification:
            return "notification:" + std::to_string(notification_type(n)) + "@" +
                   notification_objectPath(n) + describe(n->parameters());
        case reply_type_object_gone:
            return "gone:" + object->path;
        case reply_type_error:
            return "error:" + std::to_string(reply_item_error(item)) + ":" +
                   reply_item_errorDescription(item) + ":" + reply_item_errorInfo(item);
    }
    return "unknown";
}

bool recordReply(request_t* request) {
    auto* record = static_cast<recorder_t*>(request_userData(request));
    const reply_t* reply = request_reply(request);
    Items items;
    for (const reply_item_t* item = reply_firstItem(reply); item;
         item = reply_nextItem(reply, item)) {
        items.push_back(describe(item));
    }
    record->deliveries.push_back(items);
    if (record->destroyInReply) {
        request_destroy(request);
        // The memory stays until the delivery returns.
        EXPECT_EQ(request_userData(request), record);
    }
    return true;
}

void recordCancel(request_t* request) {
    auto* record = static_cast<recorder_t*>(request_userData(request));
    ++record->cancelled;
    if (record->alsoDestroy) {
        request_destroy(record->alsoDestroy);
    }
    if (record->destroyInCancel) {
        request_destroy(request);
    }
}

variant_map_t param(const char* key, const char* value) {
    return {variant_map_entry_t{key, variant_t(value)}};
}

class Bus : public ::testing::Test {
  protected:
    request_t* get(std::string_view path, std::uint32_t attributes, recorder_t* record) {
        auto request = request_create_getObject(path, 1, attributes);
        request_setReplyHandler(request.get(), recordReply);
        request_setCancelHandler(request.get(), recordCancel);
        request_setUserData(request.get(), record);
        return orv_sendRequest(context_.get(), peer(), std::move(request));
    }
    peer_info_t* peer() { return orv_pluginConfig(context_.get())->busPeer; }
    std::string cached(std::string_view path, std::string_view name) {
        const variant_t* value = orv_client_get(peer(), path, name);
        return value ? variant_char(value).value_or("<none>") : "<missing>";
    }
    // Handlers run until the context ends: their records outlive it.
    recorder_t& recorder() { return recorders_.emplace_back(); }

    orv_virtual_loop_t loop_{kStart};
    orv_inproc_bus_t bus_{&loop_};
    std::deque<recorder_t> recorders_;
    std::unique_ptr<orv_context_t> context_ =
        std::make_unique<orv_context_t>(&loop_, nullptr, &bus_);
};

TEST_F(Bus, RootLookupWithWaitDeliversRootsAsTheyComeAndGo) {
    bus_.publish("Time", param("Status", "Synchronized"));
    bus_.publish("Device.Light", param("State", "On"));
    bus_.publish("Time.Zone");
    recorder_t& record = recorder();
    request_t* request = get("", request_wait, &record);
    EXPECT_TRUE(record.deliveries.empty());  // never before the loop runs
    loop_.runPending();
    EXPECT_EQ(record.deliveries,
              (std::vector<Items>{{R"(object:Time{"Status":"Synchronized"})", "object:Device{}"}}));

    bus_.publish("Device.Switch");  // known root: nothing new
    bus_.publish("Scheduler", param("Version", "1"));
    loop_.runPending();
    EXPECT_EQ(record.deliveries.back(), (Items{R"(object:Scheduler{"Version":"1"})"}));
    EXPECT_EQ(record.deliveries.size(), 2u);

    // A root goes when its last object goes.
    bus_.unpublish("Device.Light");
    loop_.runPending();
    EXPECT_EQ(record.deliveries.size(), 2u);
    bus_.unpublish("Device.Switch");
    loop_.runPending();
    EXPECT_EQ(record.deliveries.back(), (Items{"gone:Device"}));
    EXPECT_EQ(context_->openRequests(), (std::vector<request_t*>{request}));
}

TEST_F(Bus, SubscriptionDeliversTheObjectValueChangesAndNotificationBatches) {
    bus_.publish("Time", param("Status", "Unsynchronized"));
    recorder_t& record = recorder();
    recorder_t& valuesOnly = recorder();
    request_t* request = get("Time", kSubscription, &record);
    get("Time", request_notify_values_changed, &valuesOnly);
    loop_.runPending();
    const Items object{R"(object:Time{"Status":"Unsynchronized"})"};
    EXPECT_EQ(record.deliveries, (std::vector<Items>{object}));
    EXPECT_EQ(request_reply(request), nullptr);  // outside a delivery
    EXPECT_EQ(cached("Time", "Status"), "Unsynchronized");

    EXPECT_TRUE(bus_.setParameter("Time", "Status", variant_t("Synchronized")));
    EXPECT_TRUE(bus_.setParameter("Time", "Count", variant_t(std::uint32_t{5})));
    std::vector<notification_t> batch;
    batch.emplace_back(926);
    batch.emplace_back(927);
    batch.back().parameters().push_back(variant_map_entry_t{"zone", variant_t("UTC")});
    bus_.emit("Time", std::move(batch));
    loop_.runPending();
    const Items status{R"(notification:1@Time{"parameter":"Status","newvalue":"Synchronized"})"};
    const Items count{R"(notification:1@Time{"parameter":"Count","newvalue":"5"})"};
    EXPECT_EQ(record.deliveries, (std::vector<Items>{object,
                                                     status,
                                                     count,
                                                     {"notification:926@Time{}",
                                                      R"(notification:927@Time{"zone":"UTC"})"}}));
    EXPECT_EQ(valuesOnly.deliveries, (std::vector<Items>{object, status, count}));
    EXPECT_EQ(cached("Time", "Status"), "Synchronized");
    EXPECT_EQ(cached("Time", "Count"), "5");
    EXPECT_EQ(bus_.openRequestCount("Time"), 2u);
}

TEST_F(Bus, PlainGetIsAnsweredOnceAndStaysWithTheContext) {
    bus_.publish("Device.Light", param("State", "Off"));
    recorder_t& found = recorder();
    recorder_t& missing = recorder();
    request_t* request = get("Device.Light", request_getObject_parameters, &found);
    request_t* other = get("Nope", 0, &missing);
    loop_.runPending();
    EXPECT_EQ(found.deliveries, (std::vector<Items>{{R"(object:Device.Light{"State":"Off"})"}}));
    const std::string notFound = std::to_string(orv_error_not_found);
    EXPECT_EQ(missing.deliveries,
              (std::vector<Items>{{"error:" + notFound + ":object not found:Nope"}}));
    EXPECT_EQ(bus_.openRequestCount("Device.Light"), 0u);
    // Answered requests stay with the context until the plug-in destroys them.
    EXPECT_EQ(context_->openRequests(), (std::vector<request_t*>{request, other}));
}

TEST_F(Bus, DestroyedRequestsGetNothingMore) {
    bus_.publish("Time");
    recorder_t& inReply = recorder();
    recorder_t& early = recorder();
    recorder_t& reused = recorder();
    inReply.destroyInReply = true;
    get("Time", kSubscription, &inReply);
    request_destroy(get("Time", kSubscription, &early));  // before its first delivery ran
    get("Time", kSubscription, &reused);                  // may take the freed memory
    loop_.runPending();
    bus_.setParameter("Time", "Status", variant_t("Synchronized"));
    loop_.runPending();
    EXPECT_EQ(inReply.deliveries.size(), 1u);
    EXPECT_TRUE(early.deliveries.empty());
    EXPECT_EQ(reused.deliveries.size(), 2u);
    EXPECT_EQ(context_->openRequests().size(), 1u);
    EXPECT_EQ(bus_.openRequestCount("Time"), 1u);
}

TEST_F(Bus, CancelHandlersRunWhenTheContextEnds) {
    bus_.publish("Time");
    recorder_t& keeps = recorder();
    recorder_t& destroys = recorder();
    recorder_t& victim = recorder();
    destroys.destroyInCancel = true;
    get("Time", kSubscription, &keeps);
    get("", request_wait, &destroys);
    keeps.alsoDestroy = get("Time", kSubscription, &victim);
    loop_.runPending();
    context_.reset();
    EXPECT_EQ(keeps.cancelled, 1);
    EXPECT_EQ(destroys.cancelled, 1);
    EXPECT_EQ(victim.cancelled, 0);
    EXPECT_EQ(bus_.openRequestCount("Time"), 0u);
    EXPECT_EQ(bus_.openRequestCount(""), 0u);
}

// A call without an owner never reaches the bus.
TEST_F(Bus, CallsNeedAnOwner) {
    auto refused = request_create_executeFunction("Device.Light", "setState", 0);
    EXPECT_EQ(orv_sendRequest(context_.get(), peer(), std::move(refused)), nullptr);
    EXPECT_TRUE(context_->openRequests().empty());
    EXPECT_TRUE(bus_.calls().empty());
}

}  // namespace
