/// @file
/// A thread that does one thing after the other.
#ifndef KX_MP4_RECORDER_TASKTHREAD_H
#define KX_MP4_RECORDER_TASKTHREAD_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "QuietThread.h"

namespace kx_mp4 {

/// Begins with the object, and ends with it when all is done. What a task throws is dropped.
class TaskThread {
public:
    TaskThread() : m_thread(QuietThread([this] { Run(); })) {}
    ~TaskThread() {
        {
            const std::lock_guard<std::mutex> lock(m_lock);
            m_ending = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    void Do(std::function<void()> task) {
        {
            const std::lock_guard<std::mutex> lock(m_lock);
            m_tasks.push_back(std::move(task));
        }
        m_changed.notify_one();
    }

    /// Returns when nothing is left to do.
    void Wait() {
        std::unique_lock<std::mutex> lock(m_lock);
        m_settled.wait(lock, [this] { return !m_busy && m_tasks.empty(); });
    }

private:
    void Run() {
        std::unique_lock<std::mutex> lock(m_lock);
        while (true) {
            m_changed.wait(lock, [this] { return m_ending || !m_tasks.empty(); });
            if (m_tasks.empty()) return;
            std::function<void()> task = std::move(m_tasks.front());
            m_tasks.pop_front();
            m_busy = true;
            lock.unlock();
            try {
                task();
            } catch (...) {
                // Nobody is there who could be told.
            }
            task = nullptr;  // what it holds goes before anybody hears that it is done
            lock.lock();
            m_busy = false;
            if (m_tasks.empty()) m_settled.notify_all();
        }
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::condition_variable m_settled;
    std::deque<std::function<void()>> m_tasks;
    bool m_busy = false;
    bool m_ending = false;
    std::thread m_thread;
};

}  // namespace kx_mp4

#endif  // KX_MP4_RECORDER_TASKTHREAD_H
