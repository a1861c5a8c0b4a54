// CurlRequest's pool of easy handles: static handles per provider configuration, dynamic ones
// made on demand and swept when idle.

#include "transport/CurlRequest.h"

#include "platform/Log.h"

bool CurlRequest::createHandler(int32_t configId, bool isDynamic) {
    CURL *handle = nullptr;
    if (failHandlerCreations > 0) {
        --failHandlerCreations;
    } else {
        handle = curl_easy_init();
    }
    if (handle == nullptr) {
        Log() << "CurlRequest: ERROR! Failed to create handler.\n";
        return false;
    }
    curlHandler *handler = new curlHandler;
    handler->configId = configId;
    handler->handle = handle;
    handler->inUse = false;
    handler->isDynamic = isDynamic;
    handlers.push_back(handler);
    Log() << "CurlRequest: Created handler for config " << configId << ".\n";
    return true;
}

bool CurlRequest::setupHandlersForConfig(int32_t configId, int32_t count) {
    if (!initialized) {
        Log() << "CurlRequest: ERROR! Curl not initialized.\n";
        return false;
    }
    Log() << "CurlRequest: Creating " << count << " handlers for config " << configId << ".\n";
    for (int32_t index = 0; index < count; ++index) {
        if (!createHandler(configId, false)) {
            Log() << "CurlRequest: ERROR! Failed to create handler " << index << ".\n";
            return false;
        }
    }
    return true;
}

void *CurlRequest::acquireHandler(int32_t configId) {
    for (curlHandler *handler : handlers) {
        if (handler->configId == configId && !handler->inUse) {
            handler->inUse = true;
            return handler->handle;
        }
    }
    Log() << "CurlRequest: No free handler creating dynamic handler for config " << configId
          << ".\n";
    if (!createHandler(configId, true)) {
        return nullptr;
    }
    handlers.back()->inUse = true;
    return handlers.back()->handle;
}

void CurlRequest::releaseHandler(void *handle) {
    for (curlHandler *handler : handlers) {
        if (handler->handle == handle) {
            handler->inUse = false;
            // Options never carry over from one transfer to the next.
            curl_easy_reset(handle);
            Log() << "CurlRequest: Released handler.\n";
            return;
        }
    }
}

void CurlRequest::cleanupDynamicHandlers() {
    Log() << "CurlRequest: Cleaning up handlers.\n";
    size_t kept = 0;
    for (curlHandler *handler : handlers) {
        if (handler->isDynamic && !handler->inUse) {
            if (handler->handle != nullptr) {
                if (multiHandle != nullptr) {
                    curl_multi_remove_handle(multiHandle, handler->handle);
                }
                curl_easy_cleanup(handler->handle);
            }
            delete handler;
        } else {
            handlers[kept++] = handler;
        }
    }
    handlers.resize(kept);
}
