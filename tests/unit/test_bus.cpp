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
#include "orv/loop.h"
#include "orv/notification.h"
#include "orv/request.h"

namespace {

constexpr std::int64_t kStart = 1'700'000'000'000'000;

// What a request's handlers saw; reached through the request's user data.
struct recorder_t {
    std::vector<std::vector<std::string>> deliveries;
    std::vector<std::uint32_t> cancelled;  // request ids
    bool destroyInReply = false;
    bool destroyInCancel = false;
    request_t* alsoDestroy = nullptr;
};

std::string text(const variant_t& value) {
    return variant_char(&value).value_or("<none>");
}

std::string describeParameters(const variant_map_t& parameters) {
    std::string out = "{";
    for (const auto& entry : parameters) {
        if (out.size() > 1) {
            out += ",";
        }
        out += entry.key + "=" + text(entry.value);
    }
    return out + "}";
}

std::string describe(const reply_item_t* item) {
    switch (reply_item_type(item)) {
        case reply_type_object: {
            const remote_object_t* object = reply_item_object(item);
            return "object:" + object->path + describeParameters(object->parameters);
        }
        case reply_type_notification: {
            const notification_t* n = reply_item_notification(item);
            const char* path = notification_objectPath(n);
            return "notification:" + std::to_string(notification_type(n)) + "@" +
                   (path ? path : "<none>") + describeParameters(n->parameters());
        }
        case reply_type_error:
            return "error:" + std::to_string(reply_item_error(item)) + ":" +
                   reply_item_errorDescription(item) + ":" + reply_item_errorInfo(item);
    }
    return "unknown";
}

bool recordReply(request_t* request) {
    auto* record = static_cast<recorder_t*>(request_userData(request));
    const reply_t* reply = request_reply(request);
    std::vector<std::string> items;
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
    record->cancelled.push_back(request_id(request));
    if (record->alsoDestroy) {
        request_destroy(record->alsoDestroy);
        record->alsoDestroy = nullptr;
    }
    if (record->destroyInCancel) {
        request_destroy(request);
    }
}

variant_map_t params(std::initializer_list<std::pair<const char*, const char*>> entries) {
    variant_map_t map;
    for (const auto& [key, value] : entries) {
        map.push_back(variant_map_entry_t{key, variant_t(value)});
    }
    return map;
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
        return value ? text(*value) : "<missing>";
    }

    // Handlers run until the context ends: their records outlive it.
    recorder_t& recorder() { return recorders_.emplace_back(); }

    orv_virtual_loop_t loop_{kStart};
    orv_inproc_bus_t bus_{&loop_};
    std::deque<recorder_t> recorders_;
    std::unique_ptr<orv_context_t> context_ =
        std::make_unique<orv_context_t>(&loop_, nullptr, &bus_);
};

constexpr std::uint32_t kSubscription = 0x1E41;

TEST_F(Bus, RootLookupWithWaitDeliversExistingRootsThenNewOnes) {
    bus_.publish("Time", params({{"Status", "Synchronized"}}));
    bus_.publish("Device.Light", params({{"State", "On"}}));
    bus_.publish("Time.Zone");

    recorder_t& record = recorder();
    request_t* request = get("", request_wait, &record);
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(record.deliveries.empty());  // never before the loop runs
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 1u);
    EXPECT_EQ(record.deliveries[0],
              (std::vector<std::string>{"object:Time{Status=Synchronized}", "object:Device{}"}));
    EXPECT_EQ(cached("Time", "Status"), "Synchronized");

    bus_.publish("Device.Switch");  // known root: nothing new
    bus_.publish("Scheduler", params({{"Version", "1"}}));
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 2u);
    EXPECT_EQ(record.deliveries[1], (std::vector<std::string>{"object:Scheduler{Version=1}"}));
    EXPECT_EQ(bus_.openRequestCount(""), 1u);
    EXPECT_EQ(context_->openRequests(), (std::vector<request_t*>{request}));
}

TEST_F(Bus, RootLookupOnAnEmptyBusWaitsForTheFirstRoot) {
    recorder_t& record = recorder();
    get("", request_wait, &record);
    loop_.runPending();
    EXPECT_TRUE(record.deliveries.empty());
    bus_.publish("Time.Sub");
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 1u);
    EXPECT_EQ(record.deliveries[0], (std::vector<std::string>{"object:Time{}"}));
}

TEST_F(Bus, SubscriptionDeliversTheObjectValueChangesAndNotificationBatches) {
    bus_.publish("Time", params({{"Status", "Unsynchronized"}}));
    recorder_t& record = recorder();
    request_t* request = get("Time", kSubscription, &record);
    ASSERT_NE(request, nullptr);
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 1u);
    EXPECT_EQ(record.deliveries[0],
              (std::vector<std::string>{"object:Time{Status=Unsynchronized}"}));
    EXPECT_EQ(cached("Time", "Status"), "Unsynchronized");
    EXPECT_EQ(request_reply(request), nullptr);  // outside a delivery

    EXPECT_TRUE(bus_.setParameter("Time", "Status", variant_t("Synchronized")));
    EXPECT_TRUE(bus_.setParameter("Time", "Count", variant_t(std::uint32_t{5})));
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 3u);
    EXPECT_EQ(
        record.deliveries[1],
        (std::vector<std::string>{"notification:1@Time{parameter=Status,newvalue=Synchronized}"}));
    EXPECT_EQ(record.deliveries[2],
              (std::vector<std::string>{"notification:1@Time{parameter=Count,newvalue=5}"}));
    EXPECT_EQ(cached("Time", "Status"), "Synchronized");
    EXPECT_EQ(cached("Time", "Count"), "5");

    std::vector<notification_t> batch;
    batch.emplace_back(926);
    batch.emplace_back(927);
    batch.back().parameters().push_back(variant_map_entry_t{"zone", variant_t("UTC")});
    bus_.emit("Time", std::move(batch));
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 4u);
    EXPECT_EQ(record.deliveries[3], (std::vector<std::string>{"notification:926@Time{}",
                                                              "notification:927@Time{zone=UTC}"}));
    EXPECT_EQ(bus_.openRequestCount("Time"), 1u);
}

TEST_F(Bus, ValueChangesAndNotificationsNeedTheirAttributes) {
    bus_.publish("Time");
    recorder_t& values = recorder();
    recorder_t& custom = recorder();
    get("Time", request_notify_values_changed, &values);
    get("Time", request_notify_custom, &custom);
    loop_.runPending();
    bus_.setParameter("Time", "Status", variant_t("x"));
    std::vector<notification_t> batch;
    batch.emplace_back(926);
    bus_.emit("Time", std::move(batch));
    loop_.runPending();
    ASSERT_EQ(values.deliveries.size(), 2u);
    EXPECT_EQ(values.deliveries[1][0], "notification:1@Time{parameter=Status,newvalue=x}");
    ASSERT_EQ(custom.deliveries.size(), 2u);
    EXPECT_EQ(custom.deliveries[1][0], "notification:926@Time{}");
    EXPECT_FALSE(bus_.setParameter("Nowhere", "Status", variant_t("x")));
}

TEST_F(Bus, PlainGetIsAnsweredOnceAndStaysWithTheContext) {
    bus_.publish("Device.Light", params({{"State", "Off"}}));
    recorder_t& found = recorder();
    recorder_t& missing = recorder();
    request_t* request = get("Device.Light", request_getObject_parameters, &found);
    request_t* other = get("Nope", 0, &missing);
    ASSERT_NE(request, nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(bus_.openRequestCount("Device.Light"), 1u);
    loop_.runPending();
    ASSERT_EQ(found.deliveries.size(), 1u);
    EXPECT_EQ(found.deliveries[0], (std::vector<std::string>{"object:Device.Light{State=Off}"}));
    ASSERT_EQ(missing.deliveries.size(), 1u);
    EXPECT_EQ(missing.deliveries[0],
              (std::vector<std::string>{"error:" + std::to_string(orv_error_not_found) +
                                        ":object not found:Nope"}));
    EXPECT_EQ(bus_.openRequestCount("Device.Light"), 0u);
    bus_.setParameter("Device.Light", "State", variant_t("On"));
    loop_.runPending();
    EXPECT_EQ(found.deliveries.size(), 1u);

    EXPECT_EQ(context_->openRequests(), (std::vector<request_t*>{request, other}));
    request_destroy(request);
    request_destroy(other);
    EXPECT_TRUE(context_->openRequests().empty());
}

TEST_F(Bus, RequestDestroyedInsideItsReplyHandler) {
    bus_.publish("Time");
    recorder_t& record = recorder();
    record.destroyInReply = true;
    get("Time", kSubscription, &record);
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 1u);
    EXPECT_TRUE(context_->openRequests().empty());
    EXPECT_EQ(bus_.openRequestCount("Time"), 0u);
    bus_.setParameter("Time", "Status", variant_t("Synchronized"));
    loop_.runPending();
    EXPECT_EQ(record.deliveries.size(), 1u);
}

TEST_F(Bus, RequestDestroyedBeforeItsDeliveryRunsGetsNothing) {
    bus_.publish("Time");
    recorder_t& record = recorder();
    request_t* request = get("Time", kSubscription, &record);
    bus_.setParameter("Time", "Status", variant_t("Synchronized"));
    request_destroy(request);
    EXPECT_EQ(bus_.openRequestCount("Time"), 0u);
    // A new request may even take the old one's memory.
    recorder_t& second = recorder();
    get("Time", kSubscription, &second);
    loop_.runPending();
    EXPECT_TRUE(record.deliveries.empty());
    ASSERT_EQ(second.deliveries.size(), 1u);
    EXPECT_EQ(second.deliveries[0], (std::vector<std::string>{"object:Time{Status=Synchronized}"}));
}

TEST_F(Bus, CancelHandlersRunWhenTheContextEnds) {
    bus_.publish("Time");
    recorder_t& keeps = recorder();
    recorder_t& destroys = recorder();
    destroys.destroyInCancel = true;
    request_t* first = get("Time", kSubscription, &keeps);
    request_t* second = get("", request_wait, &destroys);
    const std::uint32_t firstId = request_id(first);
    const std::uint32_t secondId = request_id(second);
    loop_.runPending();
    context_.reset();
    EXPECT_EQ(keeps.cancelled, (std::vector<std::uint32_t>{firstId}));
    EXPECT_EQ(destroys.cancelled, (std::vector<std::uint32_t>{secondId}));
    EXPECT_EQ(bus_.openRequestCount("Time"), 0u);
    EXPECT_EQ(bus_.openRequestCount(""), 0u);
    bus_.publish("Scheduler");
    loop_.runPending();  // nothing is delivered to the freed requests
    EXPECT_EQ(destroys.deliveries.size(), 1u);
}

TEST_F(Bus, CancelHandlerMayDestroyAnotherRequestDuringContextEnd) {
    bus_.publish("Time");
    recorder_t& first = recorder();
    recorder_t& second = recorder();
    request_t* a = get("Time", kSubscription, &first);
    request_t* b = get("Time", kSubscription, &second);
    (void)a;
    first.alsoDestroy = b;
    context_.reset();
    EXPECT_EQ(first.cancelled.size(), 1u);
    EXPECT_TRUE(second.cancelled.empty());
}

TEST_F(Bus, BusSideCancelEndsTheRequestsOnThatPath) {
    bus_.publish("Time");
    bus_.publish("Device");
    recorder_t& time = recorder();
    recorder_t& device = recorder();
    time.destroyInCancel = true;
    request_t* timeRequest = get("Time", kSubscription, &time);
    get("Device", kSubscription, &device);
    const std::uint32_t id = request_id(timeRequest);
    bus_.cancel("Time");
    EXPECT_EQ(time.cancelled, (std::vector<std::uint32_t>{id}));
    EXPECT_TRUE(device.cancelled.empty());
    EXPECT_EQ(bus_.openRequestCount("Time"), 0u);
    EXPECT_EQ(bus_.openRequestCount("Device"), 1u);
    loop_.runPending();  // the first delivery was posted before the cancel
    EXPECT_TRUE(time.deliveries.empty());
    EXPECT_EQ(context_->openRequests().size(), 1u);
}

TEST_F(Bus, ArbitraryItemsReachEveryOpenRequestOnAPath) {
    recorder_t& record = recorder();
    get("", request_wait, &record);
    std::vector<reply_item_t> items;
    items.push_back(reply_item_t::error(7, "broken", "info"));
    items.push_back(reply_item_t::object(remote_object_t{"Time", params({{"Status", "S"}})}));
    bus_.deliver("", std::move(items));
    loop_.runPending();
    ASSERT_EQ(record.deliveries.size(), 1u);
    EXPECT_EQ(record.deliveries[0],
              (std::vector<std::string>{"error:7:broken:info", "object:Time{Status=S}"}));
    EXPECT_EQ(cached("Time", "Status"), "S");
}

TEST_F(Bus, ExecuteFunctionNeedsAnOwnerAndIsRecordedWithItsTime) {
    auto refused = request_create_executeFunction("Device.Light", "setState", 0);
    ASSERT_NE(refused, nullptr);
    EXPECT_EQ(orv_sendRequest(context_.get(), peer(), std::move(refused)), nullptr);
    EXPECT_TRUE(bus_.calls().empty());
    EXPECT_TRUE(context_->openRequests().empty());

    bus_.publish("Device.Other");
    loop_.advance(1'500'000);
    auto request = request_create_executeFunction("Device.Light", "setState", 0);
    variant_t value("id-1");
    EXPECT_TRUE(request_addParameter(request.get(), "ID", &value));
    value = variant_t("On");
    EXPECT_TRUE(request_addParameter(request.get(), "state", &value));
    request_setReplyHandler(request.get(), recordReply);
    recorder_t& record = recorder();
    request_setUserData(request.get(), &record);
    request_t* sent = orv_sendRequest(context_.get(), peer(), std::move(request));
    ASSERT_NE(sent, nullptr);
    loop_.runPending();
    EXPECT_TRUE(record.deliveries.empty());

    ASSERT_EQ(bus_.calls().size(), 1u);
    const auto& call = bus_.calls()[0];
    EXPECT_EQ(call.time_us, kStart + 1'500'000);
    EXPECT_EQ(call.path, "Device.Light");
    EXPECT_EQ(call.function, "setState");
    EXPECT_EQ(describeParameters(call.arguments), "{ID=id-1,state=On}");
    request_destroy(sent);
    bus_.clearRecords();
    EXPECT_TRUE(bus_.calls().empty());
}

TEST_F(Bus, RequestCreation) {
    EXPECT_EQ(request_create_executeFunction("Device.Light", "", 0), nullptr);
    auto first = request_create_getObject("Time", 1, kSubscription);
    auto second = request_create_getObject("Time", 2, 0);
    EXPECT_EQ(request_id(second.get()), request_id(first.get()) + 1);
    EXPECT_EQ(request_attributes(first.get()), kSubscription);
    EXPECT_EQ(first->depth(), 1);
    EXPECT_EQ(first->type(), request_type_get_object);
    EXPECT_EQ(request_reply(first.get()), nullptr);
    request_destroy(first.get());  // never sent: nothing happens
    EXPECT_EQ(request_id(nullptr), 0u);
    EXPECT_EQ(reply_firstItem(nullptr), nullptr);
}

TEST_F(Bus, NotificationsSentAreRecorded) {
    loop_.advance(2'000'000);
    auto notification = notification_create(920);
    EXPECT_TRUE(notification_setObjectPath(notification.get(), "Scheduler.Types.Light"));
    variant_t value("v");
    EXPECT_TRUE(notification_addParameter(notification.get(), "key", &value));
    EXPECT_TRUE(orv_sendNotification(context_.get(), peer(), nullptr, notification.get()));
    auto anonymous = notification_create(1);
    EXPECT_TRUE(orv_sendNotification(context_.get(), nullptr, nullptr, anonymous.get()));
    EXPECT_FALSE(orv_sendNotification(nullptr, nullptr, nullptr, anonymous.get()));
    ASSERT_EQ(bus_.notifications().size(), 2u);
    EXPECT_EQ(bus_.notifications()[0].time_us, kStart + 2'000'000);
    EXPECT_EQ(bus_.notifications()[0].type, 920u);
    EXPECT_EQ(bus_.notifications()[0].path, "Scheduler.Types.Light");
    EXPECT_EQ(describeParameters(bus_.notifications()[0].parameters), "{key=v}");
    EXPECT_EQ(bus_.notifications()[1].path, "");
}

TEST_F(Bus, NotificationAccessors) {
    auto notification = notification_create(1);
    EXPECT_EQ(notification_objectPath(notification.get()), nullptr);
    variant_t value("Status");
    notification_addParameter(notification.get(), "parameter", &value);
    const notification_parameter_t* parameter =
        notification_getParameter(notification.get(), "parameter");
    ASSERT_NE(parameter, nullptr);
    EXPECT_EQ(notification_parameter_value(parameter), "Status");
    EXPECT_EQ(notification_getParameter(notification.get(), "newvalue"), nullptr);
    EXPECT_EQ(notification_parameter_value(nullptr), std::nullopt);
}

TEST_F(Bus, NullArgumentsAreRefused) {
    EXPECT_EQ(orv_sendRequest(nullptr, peer(), request_create_getObject("Time", 1, 0)), nullptr);
    EXPECT_EQ(orv_sendRequest(context_.get(), nullptr, request_create_getObject("Time", 1, 0)),
              nullptr);
    EXPECT_EQ(orv_sendRequest(context_.get(), peer(), nullptr), nullptr);
    EXPECT_TRUE(context_->openRequests().empty());
    EXPECT_EQ(orv_client_get(nullptr, "Time", "Status"), nullptr);
    EXPECT_EQ(peer_connection(nullptr), nullptr);
    EXPECT_EQ(orv_fromConnection(nullptr), nullptr);
    EXPECT_EQ(orv_pluginConfig(nullptr), nullptr);
}

TEST_F(Bus, PeerLeadsBackToItsContext) {
    EXPECT_EQ(orv_fromConnection(peer_connection(peer())), context_.get());
    EXPECT_TRUE(orv_client_set_attribute(context_.get(), 3, 9));
    EXPECT_EQ(context_->attribute(3), 9u);
    EXPECT_FALSE(context_->attribute(4).has_value());
}

TEST(RemoteObjectName, IsTheLastPathElement) {
    remote_object_t object{"Device.Light", {}};
    EXPECT_EQ(object_name(&object, 1), "Light");
    remote_object_t root{"Time", {}};
    EXPECT_EQ(object_name(&root, 1), "Time");
    orv_setError(orv_error_none);
    remote_object_t empty{"", {}};
    EXPECT_EQ(object_name(&empty, 1), std::nullopt);
    EXPECT_EQ(orv_error(), orv_error_not_found);
}

}  // namespace
