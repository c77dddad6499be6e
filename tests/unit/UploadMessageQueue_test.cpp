#include "UploadMessageQueue.h"

#include <atomic>
#include <thread>

#include "support/KivTest.h"
#include "support/UploadMessageQueuePeer.h"
#include "support/WaitUntil.h"

using UploadMessageQueueTest = KivTest;
using Messages = UploadMessageQueuePeer::Messages;

/// Messages come out in the order of arrival, with their parameter.
TEST_F(UploadMessageQueueTest, HandsMessagesOutInTheOrderOfArrival) {
    UploadMessageQueue queue;
    EXPECT_TRUE(queue.push({3, 1}));
    EXPECT_TRUE(queue.push({1, 0}));
    EXPECT_TRUE(queue.push({2, 0}));
    EXPECT_EQ(queue.pop().id, 3);
    EXPECT_EQ(queue.pop().id, 1);
    EXPECT_EQ(queue.pop().id, 2);
}

/// Messages come out in the order of arrival, with their parameter.
TEST_F(UploadMessageQueueTest, KeepsTheParameter) {
    UploadMessageQueue queue;
    queue.push({3, 2147483647});
    EXPECT_EQ(queue.pop().param, 2147483647);
}

/// A message that already waits is dropped; another parameter is another message.
TEST_F(UploadMessageQueueTest, DropsAMessageThatIsAlreadyWaiting) {
    UploadMessageQueue queue;
    queue.push({1, 0});
    queue.push({2, 0});
    EXPECT_FALSE(queue.push({1, 0}));
    EXPECT_EQ(UploadMessageQueuePeer::waiting(queue), (Messages{{1, 0}, {2, 0}}));
}

/// A message that already waits is dropped; another parameter is another message.
TEST_F(UploadMessageQueueTest, KeepsMessagesThatDifferInTheParameter) {
    UploadMessageQueue queue;
    EXPECT_TRUE(queue.push({3, 0}));
    EXPECT_TRUE(queue.push({3, 1}));
    EXPECT_EQ(UploadMessageQueuePeer::waiting(queue), (Messages{{3, 0}, {3, 1}}));
}

/// A message that already waits is dropped; another parameter is another message.
TEST_F(UploadMessageQueueTest, TakesAMessageAgainOnceItWasHandedOut) {
    UploadMessageQueue queue;
    queue.push({1, 0});
    queue.pop();
    EXPECT_TRUE(queue.push({1, 0}));
}

/// Taking waits for a message.
TEST_F(UploadMessageQueueTest, WaitsForAMessage) {
    UploadMessageQueue queue;
    std::atomic<int> got{-1};
    std::thread taker([&] { got = queue.pop().id; });
    queue.push({4, 0});
    EXPECT_TRUE(WaitUntil([&] { return got == 4; }));
    taker.join();
}

/// Nothing is lost between many senders.
TEST_F(UploadMessageQueueTest, LosesNothingBetweenManySenders) {
    UploadMessageQueue queue;
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([&queue, sender] {
            for (long i = 0; i < 200; ++i) queue.push({sender + 1, i});
        });
    }
    std::vector<long> next(5, 0);
    for (int i = 0; i < 800; ++i) {
        const UploadMessageQueue::Message message = queue.pop();
        EXPECT_EQ(message.param, next[static_cast<std::size_t>(message.id)]++);
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(UploadMessageQueuePeer::waiting(queue), Messages{});
}
