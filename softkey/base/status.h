// Statuses of the software key: everything that an operation can answer besides 0, and the exception that carries
// one from where it is found to the boundary of the library.
#pragma once

#include "velkor/device_service.h"

#include <exception>
#include <string>

namespace softkey
{

enum class SoftkeyStatus : int {
    Ok = 0,

    // The device.
    DeviceRemoved = STATUS_DEVICE_REMOVED,         ///< No key of that name is plugged in.
    CheckNotPossible = STATUS_CHECK_NOT_POSSIBLE,  ///< The PIN was not checked.
    DeviceUnreachable = STATUS_DEVICE_UNREACHABLE, ///< The key's file is there but cannot be opened or read.

    // The call itself.
    BadArgument = 301,    ///< A null pointer, or a length, text, number or flag out of range.
    BadInstance = 302,    ///< Not a live library instance.
    BadHashContext = 303, ///< Not a live hash context, or one that another thread is using.
    NotSupported = 304,   ///< An algorithm, padding or kind of import that the key does not know.
    BufferTooSmall = 305, ///< The result does not fit; nothing was written.

    // PINs.
    PinRequired = 311,  ///< The PIN is empty; no try was spent.
    PinIncorrect = 312, ///< Wrong PIN; a try was spent.
    PinLocked = 313,    ///< No try is left.
    PinLength = 314,    ///< A new PIN must have 4 to 63 bytes; no try was spent.

    // Objects.
    NoSuchObject = 321,      ///< No key pair or certificate with that identifier.
    WrongKeyKind = 322,      ///< The key cannot do that: EC where RSA is needed, or the other way round.
    UsageNotPermitted = 323, ///< The key pair's usage flags exclude it.
    DeviceFull = 324,        ///< All 4095 numbers are taken.

    // Data.
    BadCertificate = 331,   ///< Not a DER certificate.
    BadPrivateKey = 332,    ///< Components that do not make a key, or a key that is not stored.
    BadPublicKey = 333,     ///< A public key or point that is malformed, off its curve or of the wrong size.
    DataLength = 334,       ///< Too long or short for the key, or not the length of a known hash.
    SignatureInvalid = 335, ///< The signature does not verify.
    DecryptionFailed = 336, ///< Neither an OAEP nor a PKCS #1 v1.5 block of this key.

    // The key's file.
    FileDamaged = 341,   ///< Not readable as a key file; left as it is.
    FileForeign = 342,   ///< Some other program's file; left as it is.
    FileNewer = 343,     ///< Written by a newer version; left as it is.
    StorageBusy = 344,   ///< Other processes kept the file in use for too long.
    StorageFailed = 345, ///< Writing failed; nothing was changed.
    AlreadyExists = 346, ///< A key with that serial number exists.

    // The process.
    CryptoFailed = 351,
    OutOfMemory = 352,
    ShuttingDown = 353, ///< The process is exiting and its OpenSSL has been cleaned up.
    InternalError = 354,
};

/// One line that says what a status means.
const char* statusText(SoftkeyStatus status) noexcept;

/// Ends an operation with a status. The text never holds PINs, keys or plaintext.
class Refusal : public std::exception
{
public:
    explicit Refusal(SoftkeyStatus status, const std::string& detail = {});

    /// A refused PIN, with the tries left after it.
    static Refusal ofPin(SoftkeyStatus status, int triesLeft);

    SoftkeyStatus status() const noexcept { return status_; }
    int triesLeft() const noexcept { return triesLeft_; } ///< TRIES_UNKNOWN unless a PIN was refused.
    const char* what() const noexcept override { return text_.c_str(); }

    static constexpr int TRIES_UNKNOWN = -1;

private:
    SoftkeyStatus status_;
    int triesLeft_ = TRIES_UNKNOWN;
    std::string text_;
};

} // namespace softkey
