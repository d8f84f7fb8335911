#include "devicelib/portable/jobs.h"

namespace portable {

void Jobs::start(Body body)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_jobs.begin(); it != m_jobs.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            it = m_jobs.erase(it);
        } else {
            ++it;
        }
    }
    auto job = std::make_unique<Job>();
    Job* j = job.get();
    j->thread = std::thread([j, body = std::move(body)] {
        body(j->stop);
        j->done = true;
    });
    m_jobs.push_back(std::move(job));
}

void Jobs::stopAll()
{
    std::list<std::unique_ptr<Job>> jobs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        jobs.swap(m_jobs);
    }
    for (auto& j : jobs)
        j->stop = true;
    for (auto& j : jobs)
        if (j->thread.joinable())
            j->thread.join();
}

}  // namespace portable
