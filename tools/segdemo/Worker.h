// A thread that runs submitted jobs one after another: segdemo makes every
// engine call here, since the engine's state is process-wide.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

class Worker {
 public:
  Worker() : m_thread([this] { loop(); }) {}
  // Runs the jobs still queued, then ends the thread.
  ~Worker() {
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_quit = true;
    }
    m_wake.notify_all();
    m_thread.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  template <class Result>
  std::future<Result> submit(std::function<Result()> job) {
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(job));
    std::future<Result> result = task->get_future();
    {
      std::lock_guard<std::mutex> guard(m_lock);
      m_jobs.push_back([task] { (*task)(); });
    }
    m_wake.notify_all();
    return result;
  }

 private:
  void loop() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock<std::mutex> lock(m_lock);
        m_wake.wait(lock, [this] { return m_quit || !m_jobs.empty(); });
        if (m_jobs.empty()) return;
        job = std::move(m_jobs.front());
        m_jobs.pop_front();
      }
      job();
    }
  }

  std::mutex m_lock;
  std::condition_variable m_wake;
  std::deque<std::function<void()>> m_jobs;
  bool m_quit = false;
  std::thread m_thread;  // last: starts once the rest is set up
};
