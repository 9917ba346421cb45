#pragma once

#include <utils/Looper.h>

#include <functional>
#include <utility>

namespace android {

// Adapts a plain task to the MessageHandler interface so tasks share the message heap. The
// message is ignored; an empty task is skipped. Owned through sp<>; the task is destroyed with
// the handler, i.e. when the last queue entry (or caller) holding it lets go.
class FuncHandler : public MessageHandler {
public:
    explicit FuncHandler(std::function<void()> task) : mTask(std::move(task)) {}

    void handleMessage(const Message& /*message*/) override {
        if (mTask) mTask();
    }

protected:
    ~FuncHandler() override = default;

private:
    std::function<void()> mTask;
};

} // namespace android
