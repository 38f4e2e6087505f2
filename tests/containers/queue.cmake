#Tests of the two - lock queue.The unit tests link the static archive to
#look at the allocator 's chunk words (where the queue' s blocks come from,
#that they go back); the concurrency tests use libkyrt.so as a tool does.
kyrt_add_gtest(queue_test STATIC SOURCES queue_test.cpp)
    kyrt_add_gtest(queue_concurrency_test CONCURRENCY SOURCES queue_concurrency_test.cpp)
