#include "store/key_file.h"

#include "platform/fork_guard.h"
#include "store/schema.h"
#include "store/snapshot.h"

namespace softkey
{
namespace
{

std::atomic<std::uint64_t> readings{0}; ///< Of all keys.

} // namespace

KeyFile::KeyFile(const std::filesystem::path& path) : path_(path), database_(path, Database::Mode::Existing)
{
    requireKeyFileHeader(database_);
}

KeyFile::~KeyFile()
{
    const ForkSafeSection section;
    const Database closing = std::move(database_);
}

std::shared_ptr<const Contents> KeyFile::lastContents() const
{
    const std::lock_guard lock(contentsMutex_);
    return contents_;
}

std::shared_ptr<const Contents> KeyFile::current() const
{
    std::shared_ptr<const Contents> known = lastContents();
    return known && known->changeCounter == changeCounter(database_) ? known : nullptr;
}

std::shared_ptr<const Contents> KeyFile::contents()
{
    verify();
    std::shared_ptr<const Contents> known = current();
    return known ? known : readAnew();
}

bool KeyFile::wasVerifiedAt(std::uint32_t counter) const
{
    return verified_ && verifiedAt_ == counter;
}

void KeyFile::reload(const Contents& seen)
{
    if (!wasVerifiedAt(seen.changeCounter))
        verifyNow();
}

void KeyFile::configure()
{
    if (!configured_)
        configureConnection(database_);
    configured_ = true;
}

void KeyFile::verify()
{
    if (!verified_)
        verifyNow();
}

std::int64_t KeyFile::lookForDamage()
{
    const ForkSafeSection section;
    const std::lock_guard reading(readingMutex_);
    if (wasVerifiedAt(changeCounter(database_)))
        return SCHEMA_VERSION; // Another thread was faster: a module's monitor comes by with the first slot list.
    Snapshot snapshot(database_, path_);
    requireSoundStructure(snapshot.database());
    const std::int64_t layout = layoutOf(snapshot.database());
    if (layout == SCHEMA_VERSION)
        keep(requireOwnContents(snapshot.database()), snapshot.changeCounter());
    verifiedAt_ = snapshot.changeCounter();
    if (layout == SCHEMA_VERSION)
        verified_ = true;
    return layout;
}

void KeyFile::verifyNow()
{
    if (lookForDamage() < SCHEMA_VERSION) {
        const Turn turn(*this);
        const ForkSafeSection section;
        const std::lock_guard lock(connectionMutex_);
        configure();
        migrate(database_, [this](Database& database) { requireOwnContents(database); });
    }
    verified_ = true;
}

Contents KeyFile::requireOwnContents(Database& database) const
{
    Contents fresh = readContents(database);
    // A copy under another name would be a second device with the same serial number.
    require(fresh.device.serialNumber == path_.stem(), SoftkeyStatus::FileForeign);
    return fresh;
}

std::shared_ptr<const Contents> KeyFile::readAnew()
{
    const ForkSafeSection section;
    const std::lock_guard reading(readingMutex_);
    std::shared_ptr<const Contents> known = lastContents();
    if (known && changeCounterBefore(database_) == known->changeCounter)
        return known; // They are what the change under way began with.
    Snapshot snapshot(database_, path_);
    if (known && known->changeCounter == snapshot.changeCounter())
        return known; // A change is under way, or another thread was faster.
    requirePresentLayout(snapshot.database());
    keep(requireOwnContents(snapshot.database()), snapshot.changeCounter());
    return lastContents();
}

void KeyFile::keep(Contents fresh, std::uint32_t counter)
{
    const std::shared_ptr<const Contents> known = lastContents();
    if (known && known->changeCounter == counter)
        return; // Those who know them go by the object.
    fresh.changeCounter = counter;
    fresh.reading = ++readings;
    auto kept = std::make_shared<const Contents>(std::move(fresh));
    const std::lock_guard lock(contentsMutex_);
    contents_.swap(kept);
}

void KeyFile::read(const std::function<void(Database&)>& work)
{
    const ForkSafeSection section;
    Snapshot snapshot(database_, path_);
    work(snapshot.database());
}

KeyFile::Turn::Turn(KeyFile& file) : threads_(file.turnMutex_), processes_(queueForTurn(file)) {}

FileLock KeyFile::Turn::queueForTurn(KeyFile& file)
{
    // The others get on as long as the file changes.
    const auto progress = [&file] { return changeCounter(file.database_); };
    const FileLock next(queueOfKey(file.path_), Patience(progress));
    constexpr std::chrono::microseconds WHEN_NEXT{500};
    return {lockOfKey(file.path_), Patience(progress, WHEN_NEXT)};
}

void KeyFile::transact(const Turn&, const std::function<void(Database&)>& work)
{
    const ForkSafeSection section;
    const std::lock_guard lock(connectionMutex_);
    requireKeyFileHeader(database_); // Before SQLite acts on what a newer version may have written.
    configure();
    Transaction transaction(database_);
    requirePresentLayout(database_);
    // A file that was taken away would swallow the change.
    require(!wasReplaced(), SoftkeyStatus::DeviceRemoved);
    work(database_);
    transaction.commit();
}

void KeyFile::change(const std::function<void(Database&)>& work)
{
    verify(); // Before the turn, which bringing an older layout up to date needs, too.
    change(Turn(*this), work);
}

void KeyFile::change(const Turn& turn, const std::function<void(Database&)>& work)
{
    transact(turn, [&](Database& database) {
        require(database.number("SELECT plugged FROM device") == 1, SoftkeyStatus::DeviceRemoved);
        work(database);
    });
}

void KeyFile::setPlugged(bool plugged)
{
    verify();
    transact(Turn(*this), [&](Database& database) {
        database.execute(plugged ? "UPDATE device SET plugged = 1"
                                 : "UPDATE device SET plugged = 0, times_unplugged = times_unplugged + 1");
    });
}

} // namespace softkey
