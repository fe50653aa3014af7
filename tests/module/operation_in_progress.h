// The operation that a session has in progress: its numbers as the log shows them, how one begins, how to ask for it.
#pragma once

#include <string>

#include "session_fixture.h"

constexpr int NO_OPERATION = 0;
constexpr int FIND = 1;
constexpr int ENCRYPT = 2;
constexpr int DECRYPT = 3;
constexpr int DIGEST = 4;
constexpr int SIGN = 5;
constexpr int VERIFY = 7;
constexpr int DIGEST_ENCRYPT = 9; ///< What an encryption that begins during a digest leads to.
constexpr int DIGEST_DECRYPT = 10;

class OperationInProgressTest : public OpenSessionTest
{
protected:
    /// Begins the operation, with this key if it needs one.
    void start(int operation, CK_ULONG keyId = 2) const
    {
        CK_MECHANISM rsa = {CKM_RSA_PKCS, nullptr, 0};
        CK_MECHANISM sha256 = {CKM_SHA256, nullptr, 0};
        CK_RV code = CKR_OK;
        if (operation == DIGEST || operation == DIGEST_ENCRYPT || operation == DIGEST_DECRYPT)
            code = C_DigestInit(hSession_, &sha256);
        ASSERT_EQ(code, CKR_OK);
        if (operation == ENCRYPT || operation == DIGEST_ENCRYPT)
            code = C_EncryptInit(hSession_, &rsa, publicKey(keyId));
        else if (operation == DECRYPT || operation == DIGEST_DECRYPT)
            code = C_DecryptInit(hSession_, &rsa, privateKey(keyId));
        else if (operation == SIGN)
            code = C_SignInit(hSession_, &rsa, privateKey(keyId));
        else if (operation == VERIFY)
            code = C_VerifyInit(hSession_, &rsa, publicKey(keyId));
        else if (operation == FIND)
            code = C_FindObjectsInit(hSession_, nullptr, 0);
        ASSERT_EQ(code, CKR_OK);
    }

    /// The number of the operation in progress, asked for by a call that changes nothing.
    int activeOperation() const
    {
        const Answer probe = answer(C_DigestFinal, hSession_, nullptr, nullptr);
        if (probe == refusal(CKR_ARGUMENTS_BAD, "C_DigestFinal", "C_DigestFinal: pulDigestLen is NULL"))
            return DIGEST;
        EXPECT_EQ(probe.code, CKR_OPERATION_NOT_INITIALIZED) << probe;
        const std::string& line = probe.lines.back();
        return std::stoi(line.substr(line.find('=') + 1));
    }
};
