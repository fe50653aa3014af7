// Hashing. A context that the host holds is a number in disguise, looked up at every call: a stale or foreign one is
// refused, whatever it points to.
#include "operations/boundary.h"

#include "platform/fork_guard.h"

#include <unordered_map>

using namespace softkey;

namespace
{

struct HashContext {
    EvpDigestContext digest;
    std::size_t size = 0;
    std::mutex inUse;
};

class HashContexts
{
public:
    static HashContexts& all()
    {
        static auto* const contexts = new HashContexts; // Never destroyed: hosts call in to the very end.
        return *contexts;
    }

    void* add(std::shared_ptr<HashContext> context)
    {
        const ForkSafeSection section;
        const std::lock_guard lock(mutex_);
        contexts_.emplace(++last_, std::move(context));
        return reinterpret_cast<void*>(last_); // NOLINT(performance-no-int-to-ptr): never followed
    }

    std::shared_ptr<HashContext> find(void* handle)
    {
        const ForkSafeSection section;
        const std::lock_guard lock(mutex_);
        const auto found = contexts_.find(reinterpret_cast<std::uintptr_t>(handle));
        require(found != contexts_.end(), SoftkeyStatus::BadHashContext);
        return found->second;
    }

    std::shared_ptr<HashContext> take(void* handle)
    {
        const ForkSafeSection section;
        const std::lock_guard lock(mutex_);
        auto node = contexts_.extract(reinterpret_cast<std::uintptr_t>(handle));
        require(!node.empty(), SoftkeyStatus::BadHashContext);
        return std::move(node.mapped());
    }

    void clear()
    {
        const ForkSafeSection section;
        const std::lock_guard lock(mutex_);
        contexts_.clear();
    }

private:
    std::mutex mutex_;
    std::uintptr_t last_ = 0; ///< Numbers are never used again.
    std::unordered_map<std::uintptr_t, std::shared_ptr<HashContext>> contexts_;
};

/// Two threads in one context is a mistake of the host that must not corrupt anything.
std::unique_lock<std::mutex> useAlone(HashContext& context)
{
    std::unique_lock<std::mutex> lock(context.inUse, std::try_to_lock);
    require(lock.owns_lock(), SoftkeyStatus::BadHashContext);
    return lock;
}

std::size_t hashSize(int hashAlgorithm)
{
    switch (hashAlgorithm) {
    case HASH_SHA1:
        return 20;
    case HASH_SHA224:
        return 28;
    case HASH_SHA256:
        return 32;
    case HASH_SHA384:
        return 48;
    case HASH_SHA512:
        return 64;
    default:
        throw Refusal(SoftkeyStatus::NotSupported);
    }
}

std::shared_ptr<HashContext> startHash(std::size_t size)
{
    const Digest* algorithm = CryptoContext::get().digestOfSize(size);
    auto context = std::make_shared<HashContext>();
    context->digest = requireObject<EvpDigestContext>(EVP_MD_CTX_new());
    context->size = size;
    require(EVP_DigestInit_ex2(context->digest.get(), algorithm->algorithm, nullptr) == 1);
    return context;
}

} // namespace

void softkey::dropHashContexts()
{
    HashContexts::all().clear();
}

int velkor_initHash(const char* deviceId, int hashAlgorithm, void** hashContext, void* libraryInstance)
{
    return answer([&] {
        requireArgument(hashContext != nullptr);
        pluggedKey(deviceId, libraryInstance);
        *hashContext = HashContexts::all().add(startHash(hashSize(hashAlgorithm)));
    });
}

int velkor_updateHash(void* hashContext, const unsigned char* data, int dataLength, void* libraryInstance)
{
    return answer([&] {
        requireInstance(libraryInstance);
        const Bytes bytes = input(data, dataLength);
        const std::shared_ptr<HashContext> context = HashContexts::all().find(hashContext);
        const auto alone = useAlone(*context);
        require(EVP_DigestUpdate(context->digest.get(), bytes.data(), bytes.size()) == 1);
    });
}

int velkor_finalHash(void* hashContext, unsigned char* hash, int* hashLength, void* libraryInstance)
{
    return answer([&] {
        requireInstance(libraryInstance);
        const std::shared_ptr<HashContext> context = HashContexts::all().take(hashContext);
        requireArgument(hash != nullptr && hashLength != nullptr);
        const auto alone = useAlone(*context);
        require(EVP_DigestFinal_ex(context->digest.get(), hash, nullptr) == 1);
        *hashLength = static_cast<int>(context->size);
    });
}
