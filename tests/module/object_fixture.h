// Objects of the double's devices: their handles, templates, searches and attributes.
#pragma once

#include "session_fixture.h"
#include "template.h"

using Handles = std::vector<CK_OBJECT_HANDLE>;

constexpr CK_OBJECT_HANDLE FIRST_DERIVED_KEY = 0x70003000;
constexpr CK_ULONG MAX_ULONG = static_cast<CK_ULONG>(-1);

inline ByteVector publicKeyBytes(const VelkorKeyPair& keyPair)
{
    return {keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength};
}

inline ByteVector identifierBytes(const VelkorKeyPair& keyPair)
{
    return {keyPair.keyIdentifier, keyPair.keyIdentifier + KEY_IDENTIFIER_SIZE};
}

class ObjectTest : public OpenSessionTest
{
protected:
    ObjectTest()
    {
        ON_CALL(*device_, velkor_createInstance(testing::_)).WillByDefault(testing::SetArgPointee<0>(instance_));
    }

    /// Brings the session into a state; read-only ones need another session.
    void enterState(CK_STATE state)
    {
        if (state < CKS_RW_PUBLIC_SESSION) {
            ASSERT_EQ(C_CloseSession(hSession_), CKR_OK);
            hSession_ = openSession(CKF_SERIAL_SESSION);
        }
        if (state == CKS_RO_USER_FUNCTIONS || state == CKS_RW_USER_FUNCTIONS)
            login();
        if (state == CKS_RW_SO_FUNCTIONS)
            login(CKU_SO);
        CK_SESSION_INFO info;
        ASSERT_EQ(C_GetSessionInfo(hSession_, &info), CKR_OK);
        ASSERT_EQ(CK_STATE{info.state}, state);
    }

    /// Makes the module hold the user's PIN while the session stays public: the login is on the other token.
    void logInOnTheOtherToken() const
    {
        ASSERT_EQ(loginAs(CKU_USER, openSession(READ_WRITE, SECOND_SLOT)), CKR_OK);
        ASSERT_EQ(stateOf(hSession_), CKS_RW_PUBLIC_SESSION);
    }

    /// Makes the session a user's while the module holds no PIN: the logout on the other token drops it.
    void logInAndLoseThePin() const
    {
        login();
        ASSERT_EQ(C_Logout(openSession(READ_WRITE, SECOND_SLOT)), CKR_OK);
        ASSERT_EQ(stateOf(hSession_), CKS_RW_USER_FUNCTIONS);
    }

    /// Makes the session the security officer's while the module still holds the user's PIN.
    void logInAsUserThenAsSecurityOfficer() const
    {
        login();
        login(CKU_SO);
        ASSERT_EQ(stateOf(hSession_), CKS_RW_SO_FUNCTIONS);
    }

    VelkorKeyPair& keyPair(std::uint32_t id) const { return withId(first().keyPairs, id); }
    VelkorCertificate& certificateRecord(std::uint32_t id) const { return withId(first().certificates, id); }

    /// What parsing a certificate of the first device gives.
    CertificateDetails& detailsOf(std::uint32_t certificateId) const
    {
        return device_->defaults.detailsOf(certificateRecord(certificateId).der);
    }

    static void clearLabel(auto& record) { std::fill(std::begin(record.label), std::end(record.label), '\0'); }

    /// Makes a second certificate that parses to a public key and the two halves of a label.
    CertificateDetails& addCertificate(std::uint32_t id, const ByteVector& publicKeyOfIt)
    {
        first().certificates.push_back(makeCertificate(id, "certificate " + std::to_string(id)));
        CertificateDetails& details = detailsOf(id);
        details.subjectCommonName = "Subject " + std::to_string(id);
        details.issuerCommonName = "Issuer";
        details.publicKey = publicKeyOfIt;
        return details;
    }

    /// One page of the search in progress.
    Handles page(CK_ULONG size) const
    {
        Handles handles(size);
        CK_ULONG count = 0;
        EXPECT_EQ(C_FindObjects(hSession_, handles.data(), size, &count), CKR_OK);
        handles.resize(count);
        return handles;
    }

    /// All that a search finds.
    Handles search(Template& criteria) const
    {
        EXPECT_EQ(C_FindObjectsInit(hSession_, criteria.data(), criteria.size()), CKR_OK);
        return page(100);
    }

    /// An attribute's value, fetched as an application does: length first, then a buffer of that length.
    ByteVector attribute(CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_TYPE type) const
    {
        CK_ATTRIBUTE entry = {type, nullptr, 0};
        EXPECT_EQ(C_GetAttributeValue(hSession_, hObject, &entry, 1), CKR_OK);
        const CK_ULONG length = entry.ulValueLen;
        ByteVector value(length);
        entry.pValue = value.data();
        EXPECT_EQ(C_GetAttributeValue(hSession_, hObject, &entry, 1), CKR_OK);
        EXPECT_EQ(CK_ULONG{entry.ulValueLen}, length);
        return value;
    }

    /// Derives the bytes as a new key with the first device's key pair, whose "ECDH" gives the point behind its tag.
    static CK_OBJECT_HANDLE derive(CK_SESSION_HANDLE hSession, CK_ULONG baseKeyId, const ByteVector& secret)
    {
        ByteVector point = {0x04};
        point.insert(point.end(), secret.begin(), secret.end());
        CK_ECDH1_DERIVE_PARAMS parameter = {CKD_NULL, 0, nullptr, static_cast<CK_ULONG>(point.size()), point.data()};
        CK_MECHANISM mechanism = {CKM_ECDH1_DERIVE, &parameter, sizeof parameter};
        CK_OBJECT_HANDLE handle = 0;
        EXPECT_EQ(C_DeriveKey(hSession, &mechanism, privateKey(baseKeyId), nullptr, 0, &handle), CKR_OK);
        return handle;
    }

    /// The library instance, for exact expectations of device calls.
    void* const instance_ = &instanceObject_;

private:
    template <typename Record>
    static Record& withId(std::vector<Record>& records, std::uint32_t id)
    {
        return *std::find_if(records.begin(), records.end(), [&](const Record& each) { return each.id == id; });
    }

    static inline int instanceObject_ = 0;
};
