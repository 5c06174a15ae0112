// Threads that begin together, and the wait for all of them.
#pragma once
#include <thread>
#include <vector>

// Each thread calls work(its number).
template <class Work>
void AtOnce(int threads, const Work& work) {
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) running.emplace_back([&work, i] { work(i); });
    for (std::thread& thread : running) thread.join();
}
