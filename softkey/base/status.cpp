#include "base/status.h"

namespace softkey
{
namespace
{

struct StatusText {
    SoftkeyStatus status;
    const char* text;
};

constexpr StatusText TEXTS[] = {
    {SoftkeyStatus::Ok, "success"},
    {SoftkeyStatus::DeviceRemoved, "no such key is plugged in"},
    {SoftkeyStatus::CheckNotPossible, "the PIN could not be checked"},
    {SoftkeyStatus::DeviceUnreachable, "the key file cannot be opened or read"},
    {SoftkeyStatus::BadArgument, "invalid argument"},
    {SoftkeyStatus::BadInstance, "not a live library instance"},
    {SoftkeyStatus::BadHashContext, "not a live hash context"},
    {SoftkeyStatus::NotSupported, "not supported"},
    {SoftkeyStatus::BufferTooSmall, "the buffer is too small"},
    {SoftkeyStatus::PinRequired, "a PIN is required"},
    {SoftkeyStatus::PinIncorrect, "the PIN is not right"},
    {SoftkeyStatus::PinLocked, "the PIN is locked"},
    {SoftkeyStatus::PinLength, "a PIN must have 4 to 63 bytes"},
    {SoftkeyStatus::NoSuchObject, "no such key pair or certificate"},
    {SoftkeyStatus::WrongKeyKind, "the key is of the wrong kind"},
    {SoftkeyStatus::UsageNotPermitted, "the key's usage does not permit this"},
    {SoftkeyStatus::DeviceFull, "the key is full"},
    {SoftkeyStatus::BadCertificate, "not a certificate"},
    {SoftkeyStatus::BadPrivateKey, "not a usable private key"},
    {SoftkeyStatus::BadPublicKey, "not a usable public key"},
    {SoftkeyStatus::DataLength, "the length of the data does not suit the key"},
    {SoftkeyStatus::SignatureInvalid, "the signature is not valid"},
    {SoftkeyStatus::DecryptionFailed, "the data cannot be decrypted"},
    {SoftkeyStatus::FileDamaged, "the key file is damaged"},
    {SoftkeyStatus::FileForeign, "not a key file"},
    {SoftkeyStatus::FileNewer, "the key file was written by a newer version"},
    {SoftkeyStatus::StorageBusy, "the key file is in use by other processes"},
    {SoftkeyStatus::StorageFailed, "the key file cannot be written"},
    {SoftkeyStatus::AlreadyExists, "a key with this serial number exists"},
    {SoftkeyStatus::CryptoFailed, "a cryptographic operation failed"},
    {SoftkeyStatus::OutOfMemory, "out of memory"},
    {SoftkeyStatus::ShuttingDown, "the process is exiting"},
    {SoftkeyStatus::InternalError, "internal error"},
};

} // namespace

const char* statusText(SoftkeyStatus status) noexcept
{
    for (const StatusText& entry : TEXTS) {
        if (entry.status == status)
            return entry.text;
    }
    return "unknown status";
}

Refusal::Refusal(SoftkeyStatus status, const std::string& detail) : status_(status), text_(statusText(status))
{
    if (!detail.empty())
        text_ += ": " + detail;
}

Refusal Refusal::ofPin(SoftkeyStatus status, int triesLeft)
{
    Refusal refusal(status);
    refusal.triesLeft_ = triesLeft;
    return refusal;
}

} // namespace softkey
