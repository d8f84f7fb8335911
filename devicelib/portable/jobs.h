#pragma once
// A device's background threads (a face session, a fingerprint capture): each runs one body
// that watches its stop flag; all are told to stop and joined when the profile is replaced or
// the program ends, so none still calls back into a server that is going away.
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace portable {

class Jobs {
public:
    using Body = std::function<void(const std::atomic<bool>& stop)>;

    // Joins the jobs that have finished, then starts body on a thread of its own.
    void start(Body body);
    // Tells every job to stop and waits for all of them.
    void stopAll();

private:
    struct Job {
        std::thread thread;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
    };
    std::mutex m_mutex;
    std::list<std::unique_ptr<Job>> m_jobs;
};

}  // namespace portable
