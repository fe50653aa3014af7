#include "strict_fixture.h"

#include <algorithm>
#include <fstream>

#include "device_double.h"
#include "test_system.h"

namespace
{

const std::filesystem::path& scratch()
{
    static const std::filesystem::path folder = [] {
        const auto* test = testing::UnitTest::GetInstance()->current_test_info();
        const std::string name = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name() : "strict";
        return std::filesystem::absolute(test_system::scratchFolder(name));
    }();
    return folder;
}

CK_FUNCTION_LIST_PTR load()
{
    std::filesystem::remove_all(scratch());
    std::filesystem::create_directories(scratch());
    test_system::setTemporaryFolder(scratch());
    test_system::LogLevel(scratch()).set("2");
    const auto getList =
        reinterpret_cast<CK_C_GetFunctionList>(test_system::moduleSymbol(STRICT_FILE, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR list = nullptr;
    EXPECT_EQ(getList(&list), CKR_OK);
    return list;
}

} // namespace

const CK_FUNCTION_LIST& strictFront()
{
    static CK_FUNCTION_LIST_PTR list = load();
    return *list;
}

std::string padded(std::string text, std::size_t size)
{
    text.resize(size, ' ');
    return text;
}

StrictTest::StrictTest() : p11(strictFront()), device(std::make_shared<StrictDevice>())
{
    setDeviceOperations(device);
}

StrictTest::~StrictTest()
{
    p11.C_Finalize(nullptr);
}

std::vector<CK_SLOT_ID> StrictTest::slots(CK_BBOOL tokenPresent) const
{
    CK_ULONG count = 0;
    EXPECT_EQ(p11.C_GetSlotList(tokenPresent, nullptr, &count), CKR_OK);
    std::vector<CK_SLOT_ID> list(count);
    EXPECT_EQ(p11.C_GetSlotList(tokenPresent, list.data(), &count), CKR_OK);
    EXPECT_EQ(list.size(), count);
    return list;
}

CK_SESSION_HANDLE StrictTest::open(CK_SLOT_ID slot, CK_FLAGS flags) const
{
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(p11.C_OpenSession(slot, flags, nullptr, nullptr, &session), CKR_OK);
    return session;
}

CK_RV StrictTest::login(CK_SESSION_HANDLE session, std::string pin, CK_USER_TYPE user) const
{
    return p11.C_Login(session, user, reinterpret_cast<CK_UTF8CHAR_PTR>(pin.data()), static_cast<CK_ULONG>(pin.size()));
}

CK_RV StrictTest::setPin(CK_SESSION_HANDLE session, std::string oldPin, std::string newPin) const
{
    return p11.C_SetPIN(session, reinterpret_cast<CK_UTF8CHAR_PTR>(oldPin.data()), static_cast<CK_ULONG>(oldPin.size()),
                        reinterpret_cast<CK_UTF8CHAR_PTR>(newPin.data()), static_cast<CK_ULONG>(newPin.size()));
}

CK_STATE StrictTest::stateOf(CK_SESSION_HANDLE session) const
{
    CK_SESSION_INFO info{};
    EXPECT_EQ(p11.C_GetSessionInfo(session, &info), CKR_OK);
    return info.state;
}

CK_TOKEN_INFO StrictTest::tokenInfo(CK_SLOT_ID slot) const
{
    CK_TOKEN_INFO info{};
    EXPECT_EQ(p11.C_GetTokenInfo(slot, &info), CKR_OK);
    return info;
}

CK_SESSION_HANDLE StrictTest::userSession() const
{
    const CK_SESSION_HANDLE session = open(slots().front());
    EXPECT_EQ(login(session), CKR_OK);
    return session;
}

Handles StrictTest::find(CK_SESSION_HANDLE session, std::vector<CK_ATTRIBUTE> criteria) const
{
    EXPECT_EQ(p11.C_FindObjectsInit(session, criteria.data(), static_cast<CK_ULONG>(criteria.size())), CKR_OK);
    Handles found(8192);
    CK_ULONG count = 0;
    EXPECT_EQ(p11.C_FindObjects(session, found.data(), static_cast<CK_ULONG>(found.size()), &count), CKR_OK);
    EXPECT_EQ(p11.C_FindObjectsFinal(session), CKR_OK);
    found.resize(count);
    return found;
}

CK_OBJECT_HANDLE StrictTest::findOne(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass, std::string label) const
{
    const Handles found = find(session, {attribute(CKA_CLASS, objectClass), attribute(CKA_LABEL, label)});
    EXPECT_EQ(found.size(), 1U) << label;
    return found.empty() ? 0 : found.front();
}

CK_OBJECT_HANDLE StrictTest::privateKey(CK_SESSION_HANDLE session, int number) const
{
    return findOne(session, CKO_PRIVATE_KEY, "pair " + std::to_string(number));
}

CK_OBJECT_HANDLE StrictTest::publicKey(CK_SESSION_HANDLE session, int number) const
{
    return findOne(session, CKO_PUBLIC_KEY, "pair " + std::to_string(number));
}

ByteVector StrictTest::value(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    CK_ATTRIBUTE entry = {type, nullptr, 0};
    EXPECT_EQ(p11.C_GetAttributeValue(session, object, &entry, 1), CKR_OK) << type;
    if (entry.ulValueLen == CK_UNAVAILABLE_INFORMATION)
        return {};
    ByteVector bytes(entry.ulValueLen);
    entry.pValue = bytes.data();
    EXPECT_EQ(p11.C_GetAttributeValue(session, object, &entry, 1), CKR_OK) << type;
    return bytes;
}

bool StrictTest::flag(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    return value(session, object, type) == ByteVector{CK_TRUE};
}

CK_ULONG StrictTest::number(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    const ByteVector bytes = value(session, object, type);
    CK_ULONG number = 0;
    EXPECT_EQ(bytes.size(), sizeof number);
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof number), reinterpret_cast<unsigned char*>(&number));
    return number;
}

CK_RV StrictTest::ask(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    CK_ATTRIBUTE entry = {type, nullptr, 0};
    return p11.C_GetAttributeValue(session, object, &entry, 1);
}

CK_RV StrictTest::sign(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
                       ByteVector& signature) const
{
    CK_RV result = p11.C_SignInit(session, &mechanism, key);
    if (result != CKR_OK)
        return result;
    signature.resize(1024);
    auto length = static_cast<CK_ULONG>(signature.size());
    result = p11.C_Sign(session, data.data(), static_cast<CK_ULONG>(data.size()), signature.data(), &length);
    signature.resize(result == CKR_OK ? length : 0);
    return result;
}

CK_RV StrictTest::verify(CK_SESSION_HANDLE session, CK_MECHANISM mechanism, CK_OBJECT_HANDLE key, ByteVector data,
                         ByteVector signature) const
{
    const CK_RV result = p11.C_VerifyInit(session, &mechanism, key);
    if (result != CKR_OK)
        return result;
    return p11.C_Verify(session, data.data(), static_cast<CK_ULONG>(data.size()), signature.data(),
                        static_cast<CK_ULONG>(signature.size()));
}

CK_RV StrictTest::generate(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE type, std::vector<CK_ATTRIBUTE> ofPublic,
                           std::vector<CK_ATTRIBUTE> ofPrivate, KeyPair& pair) const
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    return p11.C_GenerateKeyPair(session, &mechanism, ofPublic.data(), static_cast<CK_ULONG>(ofPublic.size()),
                                 ofPrivate.data(), static_cast<CK_ULONG>(ofPrivate.size()), &pair.publicKey,
                                 &pair.privateKey);
}

std::vector<std::string> StrictTest::logLines() const
{
    std::vector<std::string> lines;
    const auto folder = scratch() / "Brenmoor" / test_system::loggedProgramName();
    for (const auto& file : std::filesystem::directory_iterator(folder)) {
        std::ifstream stream(file.path());
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line.substr(std::min(line.find("::=>"), line.size())));
    }
    return lines;
}

bool StrictTest::isLogged(const std::string& text) const
{
    const std::vector<std::string> lines = logLines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

void StrictTest::hideLogFolder(bool isHidden) const
{
    test_system::setTemporaryFolder(isHidden ? scratch() / "missing" : scratch());
}
