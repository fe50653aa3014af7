// Every status of the software key, one row each: name, number, text, exit code of the tool. The three
// numbers after Ok belong to the device contract.
#pragma once

#include "velkor/device_service.h"

// clang-format off
#define SOFTKEY_STATUSES(ROW) \
    ROW(Ok, 0, "success", Done) \
    /* The device. */ \
    ROW(DeviceRemoved, STATUS_DEVICE_REMOVED, "no such key is plugged in", NotFound) \
    ROW(CheckNotPossible, STATUS_CHECK_NOT_POSSIBLE, "the PIN could not be checked", Failed) \
    ROW(DeviceUnreachable, STATUS_DEVICE_UNREACHABLE, "the key file cannot be opened or read", KeyFileUnusable) \
    /* The call itself. */ \
    ROW(BadArgument, 301, "invalid argument", Usage) \
    ROW(BadInstance, 302, "not a live library instance", Failed) \
    ROW(BadHashContext, 303, "not a live hash context", Failed) \
    ROW(NotSupported, 304, "not supported", Failed) \
    ROW(BufferTooSmall, 305, "the buffer is too small", Failed) \
    /* PINs. */ \
    ROW(PinRequired, 311, "a PIN is required", PinRefused) \
    ROW(PinIncorrect, 312, "the PIN is not right", PinRefused) \
    ROW(PinLocked, 313, "the PIN is locked", PinLocked) \
    ROW(PinLength, 314, "a PIN must have 4 to 63 bytes", Usage) \
    ROW(OtherMachine, 315, "the key is bound to another machine or user", KeyFileUnusable) \
    /* Objects. */ \
    ROW(NoSuchObject, 321, "no such key pair or certificate", NotFound) \
    ROW(WrongKeyKind, 322, "the key is of the wrong kind", Failed) \
    ROW(UsageNotPermitted, 323, "the key's usage does not permit this", Failed) \
    ROW(DeviceFull, 324, "the key is full", Failed) \
    /* Data. */ \
    ROW(BadCertificate, 331, "not a certificate", BadInput) \
    ROW(BadPrivateKey, 332, "not a usable private key", BadInput) \
    ROW(BadPublicKey, 333, "not a usable public key", Failed) \
    ROW(DataLength, 334, "the length of the data does not suit the key", Failed) \
    ROW(SignatureInvalid, 335, "the signature is not valid", Failed) \
    ROW(DecryptionFailed, 336, "the data cannot be decrypted", Failed) \
    /* The key's file. */ \
    ROW(FileDamaged, 341, "the key file is damaged", KeyFileUnusable) \
    ROW(FileForeign, 342, "not a key file", KeyFileUnusable) \
    ROW(FileNewer, 343, "the key file was written by a newer version", KeyFileUnusable) \
    ROW(StorageBusy, 344, "the key file is in use by other processes", Failed) \
    ROW(StorageFailed, 345, "the key file cannot be written", NotWritten) \
    ROW(AlreadyExists, 346, "a key with this serial number exists", Exists) \
    ROW(FileExposed, 347, "others may write to the key file or its folder", KeyFileUnusable) \
    /* The process. */ \
    ROW(CryptoFailed, 351, "a cryptographic operation failed", Failed) \
    ROW(OutOfMemory, 352, "out of memory", Failed) \
    ROW(ShuttingDown, 353, "the process is exiting", Failed) \
    ROW(InternalError, 354, "internal error", Failed)
// clang-format on
