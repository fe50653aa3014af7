#include "store/key_file.h"

#include "platform/fork_guard.h"
#include "store/schema.h"

namespace softkey
{

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

std::shared_ptr<const Contents> KeyFile::contents()
{
    if (std::shared_ptr<const Contents> known = lastContents();
        known && known->changeCounter == changeCounter(database_))
        return known;
    return readAnew();
}

void KeyFile::reload()
{
    {
        const std::lock_guard lock(connectionMutex_);
        verified_ = false;
    }
    readAnew();
}

void KeyFile::verify()
{
    if (verified_)
        return;
    configureConnection(database_);
    verifyAndMigrate(database_, [this](Database& database) { requireOwnContents(database); });
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
    std::shared_ptr<const Contents> fresh;
    read([&](Database& database) { fresh = std::make_shared<const Contents>(requireOwnContents(database)); });
    const std::lock_guard lock(contentsMutex_);
    contents_ = fresh;
    return fresh;
}

void KeyFile::read(const std::function<void(Database&)>& work)
{
    inTransaction(Transaction::Kind::Read, work);
}

KeyFile::Turn::Turn(KeyFile& file)
    : threads_(file.turnMutex_),
      // They get on as long as the file changes.
      processes_(lockOfKey(file.path_), Patience([&file] { return changeCounter(file.database_); }))
{
}

void KeyFile::transact(const Turn&, const std::function<void(Database&)>& work)
{
    inTransaction(Transaction::Kind::Write, [&](Database& database) {
        // A file that was taken away would swallow the change.
        require(!wasReplaced(), SoftkeyStatus::DeviceRemoved);
        work(database);
    });
}

void KeyFile::inTransaction(Transaction::Kind kind, const std::function<void(Database&)>& work)
{
    const ForkSafeSection section;
    const std::lock_guard lock(connectionMutex_);
    requireKeyFileHeader(database_); // Before SQLite acts on what a newer version may have written.
    verify();
    Transaction transaction(database_, kind);
    requirePresentLayout(database_);
    work(database_);
    transaction.commit();
}

void KeyFile::change(const std::function<void(Database&)>& work)
{
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
    transact(Turn(*this), [&](Database& database) {
        database.execute(plugged ? "UPDATE device SET plugged = 1"
                                 : "UPDATE device SET plugged = 0, times_unplugged = times_unplugged + 1");
    });
}

} // namespace softkey
