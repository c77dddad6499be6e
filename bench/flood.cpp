// flood QUEUE COUNT [RATE]: posts COUNT events on QUEUE, as fast as it takes them or at RATE events
// per second. Each has its number in "n"; the last one says so in "last".

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <fcntl.h>
#include <mqueue.h>
#include <stdio.h>

namespace {

std::string eventText(long number, bool last) {
    return R"({"event-type":"usage.epg","data":{"n":)" + std::to_string(number) +
           (last ? R"(,"last":true}})" : "}}");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const mqd_t queue = mq_open(argv[1], O_WRONLY);
    if (queue == static_cast<mqd_t>(-1)) {
        perror(argv[1]);
        return 1;
    }
    const long count = std::atol(argv[2]);
    const double rate = argc > 3 ? std::atof(argv[3]) : 0;
    const auto begin = std::chrono::steady_clock::now();
    for (long number = 1; number <= count; ++number) {
        if (rate > 0) {
            std::this_thread::sleep_until(
                begin + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(static_cast<double>(number - 1) / rate)));
        }
        const std::string text = eventText(number, number == count);
        if (mq_send(queue, text.data(), text.size(), 0) != 0) {
            perror("mq_send");
            return 1;
        }
    }
    return mq_close(queue);
}
