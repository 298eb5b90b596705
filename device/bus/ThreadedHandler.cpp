#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "alarmd/Log.h"
#include "alarmd/platform/CorvelMessaging.h"
#include "device/bus/Memory.h"
#include "device/bus/Thread.h"

namespace CorvelMessaging {
namespace {

constexpr std::size_t k_queueLimit = 4096;

struct Work {
    boost::shared_ptr<Message> message;
    boost::shared_ptr<CorvelMessageAttachmentReader> reader;  ///< empty without an attachment
};

void handle(CorvelMessageHandler& handler, const Work& work) {
    try {
        if (work.reader) {
            handler.onMessageWithAttachment(work.message, work.reader);
        } else {
            handler.onMessage(work.message);
        }
    } catch (const std::exception& e) {
        LOGE("CorvelMessaging:onMessage:reason=exception,exc=%s:", e.what());
    } catch (...) {
        LOGE("CorvelMessaging:onMessage:reason=exception,exc=%s:", "unknown");
    }
}

}  // namespace

struct CorvelMessageHandlerThreaded::Impl final : WorkQueue {
    explicit Impl(CorvelMessageHandler& next) : m_handler(next) {}
    ~Impl() override;

    void queue(Work work);
    void start() override;
    void requestFinish() override;
    void waitFinish() override;

  private:
    enum class State { Idle, Started, Finishing };

    void run();

    CorvelMessageHandler& m_handler;
    std::mutex m_mutex;  ///< guards all below but the thread
    std::condition_variable m_changed;
    State m_state = State::Idle;
    std::deque<Work> m_waiting;
    std::mutex m_joining;  ///< guards the thread, once it has started
    std::thread m_thread;
};

CorvelMessageHandlerThreaded::Impl::~Impl() {
    if (m_state == State::Started) {
        requestFinish();
    }
    if (m_state == State::Finishing) {
        waitFinish();
    }
}

void CorvelMessageHandlerThreaded::Impl::queue(Work work) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Finishing) {
        throw QueueClosed();
    }
    if (m_waiting.size() == k_queueLimit) {
        throw QueueFull();
    }
    m_waiting.push_back(std::move(work));
    m_changed.notify_one();
}

void CorvelMessageHandlerThreaded::Impl::start() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state != State::Idle) {
        throw std::logic_error("WorkQueue::start(): Already started.");
    }
    m_thread = device::startThread("corvel-work", [this] { run(); });
    m_state = State::Started;
}

void CorvelMessageHandlerThreaded::Impl::requestFinish() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == State::Idle) {
        throw std::logic_error("WorkQueue::requestFinish(): Not started.");
    }
    if (m_state == State::Finishing) {
        throw std::logic_error("WorkQueue::requestFinish(): Finish already requested.");
    }
    m_state = State::Finishing;
    m_changed.notify_one();
}

void CorvelMessageHandlerThreaded::Impl::waitFinish() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::Finishing) {
            throw std::logic_error("WorkQueue::waitFinish(): Finish not requested.");
        }
    }
    const std::lock_guard<std::mutex> lock(m_joining);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void CorvelMessageHandlerThreaded::Impl::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_waiting.empty()) {
            lock.unlock();
            device::giveBackMemory();
            lock.lock();
        }
        while (m_waiting.empty() && m_state != State::Finishing) {
            m_changed.wait(lock);
        }
        if (m_waiting.empty()) {
            return;
        }
        Work work = std::move(m_waiting.front());
        m_waiting.pop_front();
        lock.unlock();
        handle(m_handler, work);
        work = {};
        lock.lock();
    }
}

CorvelMessageHandlerThreaded::CorvelMessageHandlerThreaded(CorvelMessageHandler& handler)
    : m_impl(std::make_unique<Impl>(handler)) {}

CorvelMessageHandlerThreaded::~CorvelMessageHandlerThreaded() = default;

void CorvelMessageHandlerThreaded::onMessage(boost::shared_ptr<Message> message) {
    m_impl->queue({std::move(message), nullptr});
}

void CorvelMessageHandlerThreaded::onMessageWithAttachment(
    boost::shared_ptr<Message> message, boost::shared_ptr<CorvelMessageAttachmentReader> reader) {
    m_impl->queue({std::move(message), std::move(reader)});
}

WorkQueue& CorvelMessageHandlerThreaded::workQueue() {
    return *m_impl;
}

}  // namespace CorvelMessaging
