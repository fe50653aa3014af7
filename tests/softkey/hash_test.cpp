// Hashing, and hash contexts that are stale, foreign or used by two threads.
#include "world.h"

#include <thread>

namespace softkey::test
{
namespace
{

class HashTest : public SoftkeyTest
{
protected:
    void* begin(int algorithm)
    {
        void* context = nullptr;
        EXPECT_EQ(velkor_initHash(SERIAL, algorithm, &context, instance), 0);
        return context;
    }
    int update(void* context, const Data& data)
    {
        return velkor_updateHash(context, data.data(), length(data), instance);
    }
    std::string end(void* context)
    {
        Data hash(64);
        int size = 12345; // Not read.
        EXPECT_EQ(velkor_finalHash(context, hash.data(), &size, instance), 0);
        hash.resize(static_cast<std::size_t>(size));
        return toHex(hash);
    }
    std::string hash(int algorithm, const std::string& text)
    {
        void* context = begin(algorithm);
        EXPECT_EQ(update(context, bytesOf(text)), 0);
        return end(context);
    }
};

TEST_F(HashTest, HashesOfAbc)
{
    EXPECT_EQ(hash(HASH_SHA1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hash(HASH_SHA224, "abc"), "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
    EXPECT_EQ(hash(HASH_SHA256, "abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hash(HASH_SHA384, "abc"), "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
                                        "8086072ba1e7cc2358baeca134c825a7");
    EXPECT_EQ(hash(HASH_SHA512, "abc"), "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                                        "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
}

TEST_F(HashTest, PartsAddUp)
{
    void* context = begin(HASH_SHA256);
    for (int i = 0; i < 1'000; ++i)
        EXPECT_EQ(update(context, Data(1'000, 'a')), 0);
    EXPECT_EQ(end(context), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_F(HashTest, TheEmptyMessageNeedsNoUpdate)
{
    EXPECT_EQ(end(begin(HASH_SHA1)), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(HashTest, ContextsDoNotMix)
{
    void* one = begin(HASH_SHA256);
    void* other = begin(HASH_SHA1);
    update(one, bytesOf("ab"));
    update(other, bytesOf("abc"));
    update(one, bytesOf("c"));
    EXPECT_EQ(end(one), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(end(other), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(HashTest, UnknownAlgorithmsAreRefused)
{
    for (const int algorithm : {-1, 0, 1, 7, 1000}) {
        void* context = nullptr;
        EXPECT_EQ(velkor_initHash(SERIAL, algorithm, &context, instance), code(SoftkeyStatus::NotSupported));
        EXPECT_EQ(context, nullptr);
    }
}

TEST_F(HashTest, AnEndedContextIsRefused)
{
    void* context = begin(HASH_SHA256);
    end(context);
    Data out(64);
    int size = 0;
    EXPECT_EQ(update(context, bytesOf("abc")), code(SoftkeyStatus::BadHashContext));
    EXPECT_EQ(velkor_finalHash(context, out.data(), &size, instance), code(SoftkeyStatus::BadHashContext));
}

TEST_F(HashTest, AForeignPointerIsRefused)
{
    int here = 0;
    Data out(64);
    int size = 0;
    for (void* foreign : {static_cast<void*>(&here), static_cast<void*>(nullptr), reinterpret_cast<void*>(~0UL)}) {
        EXPECT_EQ(update(foreign, bytesOf("abc")), code(SoftkeyStatus::BadHashContext));
        EXPECT_EQ(velkor_finalHash(foreign, out.data(), &size, instance), code(SoftkeyStatus::BadHashContext));
    }
}

TEST_F(HashTest, FinishingEndsTheContextEvenWhenItFails)
{
    void* context = begin(HASH_SHA256);
    int size = 0;
    EXPECT_EQ(velkor_finalHash(context, nullptr, &size, instance), code(SoftkeyStatus::BadArgument));
    EXPECT_EQ(update(context, bytesOf("abc")), code(SoftkeyStatus::BadHashContext));
}

TEST_F(HashTest, TheLastReleaseEndsAllContexts)
{
    void* context = begin(HASH_SHA256);
    velkor_releaseInstance(instance);
    velkor_createInstance(&instance);
    EXPECT_EQ(update(context, bytesOf("abc")), code(SoftkeyStatus::BadHashContext));
}

TEST_F(HashTest, TwoThreadsInOneContextDoNoHarm)
{
    void* context = begin(HASH_SHA256);
    const auto work = [&] {
        const Data data(10'000, 'x');
        for (int i = 0; i < 200; ++i) {
            const int status = velkor_updateHash(context, data.data(), length(data), instance);
            ASSERT_TRUE(status == 0 || status == code(SoftkeyStatus::BadHashContext));
        }
    };
    std::thread other(work);
    work();
    other.join();
    end(context);
}

} // namespace
} // namespace softkey::test
