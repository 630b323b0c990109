#include "client_calls.h"

#include <memory>

#include "scheduler_plugin_common.h"

namespace {

std::unique_ptr<request_t> buildSetStateRequest(const std::string& path, const std::string& id,
                                                const std::string& state) {
    std::unique_ptr<request_t> request = request_create_executeFunction(path, "setState", 0);
    if (!request) {
        return nullptr;
    }
    const std::pair<const char*, const std::string*> arguments[] = {{"ID", &id}, {"state", &state}};
    for (const auto& [name, text] : arguments) {
        const variant_t value(*text);
        if (!request_addParameter(request.get(), name, &value)) {
            return nullptr;
        }
    }
    return request;
}

}  // namespace

bool setState(const service_t& service, const std::string& path, const std::string& id,
              const std::string& state) {
    if (!service.synchronized) {
        // Normal before the first synchronisation: the state is sent then.
        tolvTraceZ(TRACE_LEVEL_APP_INFO, ME, "The clock is not synchronised: holding %s [%s]",
                   id.c_str(), state.c_str());
        return false;
    }
    tolvTraceZ(TRACE_LEVEL_APP_INFO, ME, "setState called for [%s] with ID:[%s] and value:[%s]",
               path.c_str(), id.c_str(), state.c_str());
    orv_context_t* context =
        service.busPeer != nullptr ? orv_fromConnection(peer_connection(service.busPeer)) : nullptr;
    std::unique_ptr<request_t> request = buildSetStateRequest(path, id, state);
    if (context == nullptr || !request) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not build setState for %s", id.c_str());
        return false;
    }
    request_t* sent = orv_sendRequest(context, service.busPeer, std::move(request));
    if (sent == nullptr) {
        // A client that is away is common and is told again when it is back.
        tolvTraceZ(TRACE_LEVEL_APP_INFO, ME, "Could not send setState for %s to %s", id.c_str(),
                   path.c_str());
        return false;
    }
    // The client's answer is not awaited.
    request_destroy(sent);
    return true;
}
