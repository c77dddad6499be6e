// many COUNT TIMEOUT-MS: posts so many events, tells which were not taken, and the longest post.
#include <kivevent.hpp>

#include <iostream>
#include <thread>

int main(int, char** argv) {
    using Clock = std::chrono::steady_clock;
    const int count = std::stoi(argv[1]);
    const std::chrono::milliseconds timeout(std::stoi(argv[2]));
    std::chrono::duration<double, std::milli> longest(0);
    kivevent::Queue queue;
    for (int i = 0; i < count; ++i) {
        if (i % (count / 20) == 0) std::cout << "at " << i << std::endl;
        const auto event =
            kivevent::Event("usage.app").add("number", i).kernelTime(1000 + i).text();
        const auto start = Clock::now();
        const bool taken = queue.tryPost(event, timeout) == KIVEVENT_OK;
        longest = std::max<decltype(longest)>(longest, Clock::now() - start);
        if (taken) continue;
        std::cout << "not " << i << " " << kivevent_detail() << "\n";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::cout << "longest " << longest.count() << "\n";
}
