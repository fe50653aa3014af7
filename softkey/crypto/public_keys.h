// Public keys that were parsed once, with the contexts that earlier uses left ready. Parsing takes several times as
// long as verifying with RSA does.
#pragma once

#include "crypto/key_kinds.h"
#include "crypto/ready_contexts.h"

#include <array>
#include <list>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace softkey
{

class PublicKey
{
public:
    /// What contexts are set up for. PSS stands before one for each of the five hashes.
    enum Use : std::size_t { Verification, Encryption, OaepEncryption, PssVerification };

    explicit PublicKey(EvpKey key) : key_(std::move(key)) {}

    /// Whether `work` succeeds with a context that `setUp` has made ready for that use, now or earlier.
    template <class SetUp, class Work>
    bool runFor(std::size_t use, const SetUp& setUp, const Work& work) const
    {
        EvpKeyContext context = ready_[use].take();
        if (!context) {
            context = contextFor(key_.get());
            setUp(context.get());
        }
        const bool done = work(context.get());
        if (done)
            ready_[use].keep(std::move(context));
        return done;
    }

private:
    static constexpr std::size_t USES = PssVerification + 5;

    EvpKey key_;
    mutable std::array<ReadyContexts, USES> ready_;
};

/// How a public key may be given.
enum class PublicKeyForm {
    Any,  ///< Modulus, point or SubjectPublicKeyInfo.
    Info, ///< SubjectPublicKeyInfo alone.
};

/// Those that this process used last.
class PublicKeys
{
public:
    static PublicKeys& ofProcess();

    /// Throws BadPublicKey, also for what was bad before: only good ones are kept.
    std::shared_ptr<const PublicKey> find(const KeyKindTraits& traits, PublicKeyForm form, Bytes encoded);
    void clear();

private:
    static constexpr std::size_t KEPT = 128;

    struct Name {
        const KeyKindTraits* traits;
        PublicKeyForm form;
        std::string_view encoded;

        bool operator==(const Name&) const = default;
    };
    struct NameHash {
        std::size_t operator()(const Name& name) const { return std::hash<std::string_view>()(name.encoded); }
    };
    struct Entry {
        Name name;
        ByteVector encoded; ///< What the name refers to.
        std::shared_ptr<const PublicKey> key;
    };

    std::shared_ptr<const PublicKey> findKnown(const Name& name);
    void keep(Entry entry);

    std::mutex mutex_;
    std::list<Entry> entries_; ///< The one that was used last is the first.
    std::unordered_map<Name, std::list<Entry>::iterator, NameHash> positions_;
};

} // namespace softkey
