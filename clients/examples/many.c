/* many COUNT TIMEOUT-MS: posts so many events, tells which were not taken, and the longest post. */
#include <kivevent.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec * 1e3 + (double)t.tv_nsec / 1e6;
}
int main(int argc, char** argv) {
    const int count = argc == 3 ? atoi(argv[1]) : 0, timeout = argc == 3 ? atoi(argv[2]) : 0;
    const struct timespec rest = {0, 10000000};
    double longest = 0, start;
    char text[100];
    kivevent_queue* queue;
    if (kivevent_open(NULL, &queue) != KIVEVENT_OK) return 1;
    for (int i = 0; i < count; ++i) {
        snprintf(text, sizeof text,
                 "{\"event-type\":\"usage.app\",\"kernel-time\":%d,"
                 "\"data\":{\"number\":%d}}",
                 1000 + i, i);
        if (i % (count / 20) == 0 && printf("at %d\n", i)) fflush(stdout);
        start = now();
        const kivevent_code code = kivevent_post_wait(queue, text, timeout);
        longest = now() - start > longest ? now() - start : longest;
        if (code == KIVEVENT_OK) continue;
        printf("not %d %s\n", i, kivevent_detail());
        nanosleep(&rest, NULL);
    }
    printf("longest %.1f\n", longest);
    kivevent_close(queue);
}
