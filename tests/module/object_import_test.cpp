// C_CreateObject.
#include <stdexcept>

#include "object_change_fixture.h"

namespace
{

using testing::_;
using testing::AllOf;
using testing::Args;
using testing::Each;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsNull;
using testing::Pointee;
using testing::Return;
using testing::StrEq;
using testing::Throw;

const std::string FUNCTION = "C_CreateObject";
const std::string HOME = "/some where";
const std::string FOLDER = "/some where\\VelkorDSC\\Certificates";

const std::string ENTRY_LINE = "C_CreateObject - attrip type : ";
const std::string NO_HOME_LINE = "VELKOR_HOME not set — Using Windows defaults";
const std::string FOLDER_LINE = "CA Folder: " + FOLDER;
const std::string STORED_LINE = "Certificate imported successfully";
const std::string BROKEN_LINE = "C_CreateObject: unexpected exception: broken";
const std::string ALONE_LINE = "Chain import skipped or failed — Performing normal leaf import";

constexpr CK_OBJECT_HANDLE UNTOUCHED = 0xABCDEF;

std::string missingLine(const std::string& issuer)
{
    return "Issuer '" + issuer + "' NOT found — skipping chain import";
}

std::string labelLine(const std::string& label)
{
    return "Label not provided, using: " + label;
}

ByteVector toBytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

/// A result of the device, and what the import that meets it answers.
struct DeviceFailure {
    int status;
    CK_RV code;

    friend std::ostream& operator<<(std::ostream& out, const DeviceFailure& failure) { return out << failure.status; }
};

constexpr DeviceFailure DEVICE_FAILURES[] = {
    {1, CKR_FUNCTION_FAILED},  {-1, CKR_FUNCTION_FAILED},  {39, CKR_FUNCTION_FAILED}, {40, CKR_DEVICE_REMOVED},
    {41, CKR_FUNCTION_FAILED}, {241, CKR_FUNCTION_FAILED}, {242, CKR_DEVICE_REMOVED}, {243, CKR_FUNCTION_FAILED}};

class ObjectImportTest : public ObjectChangeTest
{
protected:
    /// The environment is changed before the monitor starts, which reads it too.
    void SetUp() override
    {
        setHome();
        ObjectChangeTest::SetUp();
    }

    virtual void setHome() const { test_system::setEnvironment("VELKOR_HOME", HOME); }

    Answer createWithEntryLines(const Template& entries)
    {
        return answer(C_CreateObject, hSession_, entries.data(), entries.size(), &hObject_);
    }

    /// What a call answers, without the lines of the template's entries.
    Answer create(const Template& entries)
    {
        Answer answered = createWithEntryLines(entries);
        std::erase_if(answered.lines, [](const std::string& line) { return line.starts_with("DEBUG " + ENTRY_LINE); });
        return answered;
    }

    static Answer success(const std::vector<std::string>& debugLines) { return answerOf(FUNCTION, CKR_OK, debugLines); }

    CK_OBJECT_HANDLE hObject_ = UNTOUCHED;
};

// ---- What is refused before the template is read ----

TEST_F(ModuleTest, CreateObjectBeforeInitializeIsRefused)
{
    EXPECT_EQ(answer(C_CreateObject, 0, nullptr, 0, nullptr),
              refusal(CKR_CRYPTOKI_NOT_INITIALIZED, FUNCTION, "C_CreateObject: not initialized"));
}

using OpeningChecksTest = ObjectImportTest;

TEST_F(OpeningChecksTest, LookAtTheArgumentsInTheirOrder)
{
    CK_ATTRIBUTE entry{};
    EXPECT_EQ(answer(C_CreateObject, 0, nullptr, 0, nullptr),
              refusal(CKR_SESSION_HANDLE_INVALID, FUNCTION, "C_CreateObject: invalid hSession=0"));
    EXPECT_EQ(answer(C_CreateObject, hSession_, nullptr, 0, nullptr),
              refusal(CKR_ARGUMENTS_BAD, FUNCTION, "C_CreateObject: pTemplate is NULL"));
    EXPECT_EQ(answer(C_CreateObject, hSession_, &entry, 0, nullptr),
              refusal(CKR_ARGUMENTS_BAD, FUNCTION, "C_CreateObject: ulCount<=0"));
    EXPECT_EQ(answer(C_CreateObject, hSession_, &entry, 1, nullptr),
              refusal(CKR_ARGUMENTS_BAD, FUNCTION, "C_CreateObject: phObject is NULL"));
}

TEST_F(OpeningChecksTest, LeaveTheHandleAlone)
{
    CK_ATTRIBUTE entry{};
    EXPECT_EQ(C_CreateObject(hSession_ + 1, &entry, 1, &hObject_), CKR_SESSION_HANDLE_INVALID);
    EXPECT_EQ(C_CreateObject(hSession_, nullptr, 1, &hObject_), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(C_CreateObject(hSession_, &entry, 0, &hObject_), CKR_ARGUMENTS_BAD);
    EXPECT_EQ(hObject_, UNTOUCHED);
}

// ---- Certificates ----

class CertificateImportTest : public ObjectImportTest
{
protected:
    /// Makes a certificate that can be parsed; gives its DER.
    ByteVector certificate(const std::string& subject, const std::string& issuer) const
    {
        const ByteVector der = toBytes(subject + " by " + issuer);
        CertificateDetails& details = device_->defaults.detailsOf(der);
        details.subjectCommonName = "second text";
        details.issuerCommonName = "third text";
        details.subject = "CN=" + subject + ",O=Example";
        details.issuer = "CN=" + issuer + ",O=Example";
        return der;
    }

    void putOnDisk(const ByteVector& der) const { device_->defaults.files.emplace_back("some file.cer", der); }

    /// A certificate that can be parsed, in a file.
    ByteVector issuerOnDisk(const std::string& subject, const std::string& issuer) const
    {
        const ByteVector der = certificate(subject, issuer);
        putOnDisk(der);
        return der;
    }

    static Template templateOf(const ByteVector& der, const std::string& label = "leaf")
    {
        Template entries;
        entries.add(CKA_VALUE, der).add(CKA_LABEL, label);
        return entries;
    }

    /// The record of a certificate to be stored, to the last byte.
    static testing::Matcher<VelkorCertificate*> newRecord(const ByteVector& der, const std::string& label,
                                                          const ByteVector& objectId = {})
    {
        std::string labelField = label;
        labelField.resize(LABEL_CAPACITY + 1);
        ByteVector objectIdField = objectId;
        objectIdField.resize(OBJECT_ID_CAPACITY);
        return Pointee(AllOf(Field(&VelkorCertificate::id, 0u), Field(&VelkorCertificate::der, der),
                             Field(&VelkorCertificate::certificateIdentifier, Each(0)),
                             Field(&VelkorCertificate::objectId, ElementsAreArray(objectIdField)),
                             Field(&VelkorCertificate::objectIdLength, static_cast<int>(objectId.size())),
                             Field(&VelkorCertificate::label, ElementsAreArray(labelField))));
    }

    void expectParsing(const ByteVector& der)
    {
        EXPECT_CALL(*device_, velkor_getCertificateDetails(_, _, _, instance()))
            .With(Args<0, 1>(ElementsAreArray(der)))
            .InSequence(script_);
    }

    void expectFolderRead(const std::string& folder = FOLDER)
    {
        EXPECT_CALL(*device_,
                    velkor_getFilesWithExtensionsAndConvertDER(
                        StrEq(folder), testing::ElementsAre(".cer", ".der", ".pem", ".crt"), false, instance()))
            .InSequence(script_);
    }

    void expectImport(const testing::Matcher<VelkorCertificate*>& record, const std::string& pin = "")
    {
        EXPECT_CALL(*device_, velkor_importCertificate(StrEq(FIRST_DEVICE), StrEq(pin), record, instance()))
            .InSequence(script_);
    }

    void expectFailingImport(int status)
    {
        EXPECT_CALL(*device_, velkor_importCertificate).InSequence(script_).WillOnce(Return(status));
    }

    /// The searches for the handle and for the key pair.
    void expectLookups()
    {
        expectCertificateList();
        expectKeyPairList();
    }

    void expectLeafAlone(const testing::Matcher<VelkorCertificate*>& record)
    {
        expectFolderRead();
        expectImport(record);
        expectLookups();
    }

    /// The first certificate that is stored on the first device gets this handle.
    static constexpr CK_OBJECT_HANDLE FIRST_STORED = 0x70002004;
};

TEST_F(CertificateImportTest, IsMeantByATemplateWithoutAClass)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, IsMeantByTheCertificateClass)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der).add(CKA_CLASS, CKO_CERTIFICATE)), success({FOLDER_LINE, ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, NeedsNoLogin)
{
    hSession_ = openSession(READ_ONLY);
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)).code, CKR_OK);
}

TEST_F(CertificateImportTest, PassesTheCachedPin)
{
    login();
    const ByteVector der = certificate("Leaf", "Nobody");
    expectFolderRead();
    expectImport(newRecord(der, "leaf"), USER_PIN);
    expectLookups();
    EXPECT_EQ(create(templateOf(der)).code, CKR_OK);
}

TEST_F(CertificateImportTest, WithoutAValueIsRefused)
{
    EXPECT_CALL(*device_, velkor_getCertificateDetails).Times(0);
    Template entries;
    entries.add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_LABEL, "leaf");
    EXPECT_EQ(create(entries),
              refusal(CKR_FUNCTION_FAILED, FUNCTION, "Certificate data not available in create object"));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

// ---- Certificates that cannot be parsed ----

class UnparsableCertificateTest : public CertificateImportTest
{
protected:
    void expectRefusal(const ByteVector& der)
    {
        EXPECT_EQ(create(templateOf(der)), answerOf(FUNCTION, CKR_DATA_INVALID, {"certificate parsing failed"}));
        EXPECT_EQ(hObject_, UNTOUCHED);
    }
};

class ParsingStatusTest : public UnparsableCertificateTest, public testing::WithParamInterface<int>
{
};

INSTANTIATE_TEST_SUITE_P(Statuses, ParsingStatusTest, testing::Values(1, -1, 40, 242));

TEST_P(ParsingStatusTest, OtherThanZeroIsInvalidData)
{
    EXPECT_CALL(*device_, velkor_getCertificateDetails).WillOnce(Return(GetParam()));
    expectRefusal(certificate("Leaf", "Nobody"));
}

TEST_F(UnparsableCertificateTest, OfAMebibyteOfNoiseGoesToTheParserWhole)
{
    ByteVector noise(1 << 20);
    unsigned state = 1;
    for (unsigned char& byte : noise)
        byte = static_cast<unsigned char>((state = state * 1103515245 + 12345) >> 16);
    expectParsing(noise);
    expectRefusal(noise);
}

TEST_F(UnparsableCertificateTest, OfTextGoesToTheParserAsItStands)
{
    const ByteVector pem = toBytes("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    expectParsing(pem);
    expectRefusal(pem);
}

TEST_F(UnparsableCertificateTest, GoesToTheParserWhereverItWasCutAndNoByteMore)
{
    const ByteVector whole = certificate("Leaf", "Nobody");
    for (ByteVector cut = {whole.begin(), whole.end() - 1}; !cut.empty(); cut.pop_back()) {
        SCOPED_TRACE(cut.size());
        EXPECT_CALL(*device_, velkor_getCertificateDetails(_, _, _, instance()))
            .With(Args<0, 1>(ElementsAreArray(cut)))
            .InSequence(script_)
            .WillOnce(Return(1));
        expectRefusal(cut);
    }
}

// ---- The template ----

using TemplateTest = CertificateImportTest;

TEST_F(TemplateTest, EveryEntryWithAValueIsLoggedInOrder)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    const CK_ATTRIBUTE_TYPE types[] = {CKA_LABEL, CKA_CLASS, CKA_TOKEN, CKA_ID, CKA_VENDOR_DEFINED, CKA_VALUE};
    Template entries;
    std::vector<std::string> lines;
    for (const CK_ATTRIBUTE_TYPE type : types)
        lines.push_back(ENTRY_LINE + logged(type));
    entries.add(CKA_LABEL, "leaf").add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_TOKEN, ByteVector{CK_TRUE});
    entries.add(CKA_ID, ByteVector{1}).add(CKA_VENDOR_DEFINED, ByteVector{2}).add(CKA_VALUE, der);
    lines.insert(lines.end(), {FOLDER_LINE, ALONE_LINE});
    expectLeafAlone(newRecord(der, "leaf", {1}));
    EXPECT_EQ(createWithEntryLines(entries), success(lines));
}

TEST_F(TemplateTest, EntriesWithoutAValueAreSkipped)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    Template entries = templateOf(der);
    char something = 'x';
    for (const CK_ATTRIBUTE_TYPE type : {CKA_CLASS, CKA_VALUE, CKA_LABEL, CKA_ID}) {
        entries.addRaw(type, nullptr, 4);
        entries.addRaw(type, &something, 0);
    }
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(createWithEntryLines(entries), success({ENTRY_LINE + "17", ENTRY_LINE + "3", FOLDER_LINE, ALONE_LINE}));
}

TEST_F(TemplateTest, WithNothingButEmptyEntriesHasNoCertificate)
{
    Template entries;
    entries.addRaw(CKA_VALUE, nullptr, 4);
    EXPECT_EQ(createWithEntryLines(entries),
              refusal(CKR_FUNCTION_FAILED, FUNCTION, "Certificate data not available in create object"));
}

TEST_F(TemplateTest, LaterEntriesReplaceEarlierOnes)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    Template entries;
    entries.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_VALUE, "no certificate");
    entries.add(CKA_LABEL, "a longer label").add(CKA_ID, ByteVector{1, 2, 3});
    entries.add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_VALUE, der).add(CKA_LABEL, "leaf").add(CKA_ID, ByteVector{4});
    expectLeafAlone(newRecord(der, "leaf", {4}));
    EXPECT_EQ(create(entries).code, CKR_OK);
}

TEST_F(TemplateTest, MayHaveTenThousandEntries)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    Template entries = templateOf(der, "first");
    while (entries.size() < 9'999)
        entries.addRaw(CKA_TOKEN, nullptr, 0);
    entries.add(CKA_LABEL, "last");
    expectLeafAlone(newRecord(der, "last"));
    EXPECT_EQ(create(entries), success({FOLDER_LINE, ALONE_LINE}));
}

// ---- The label ----

struct GivenLabelCase {
    const char* name;
    std::string given;
    std::string stored;

    friend std::ostream& operator<<(std::ostream& out, const GivenLabelCase& each) { return out << each.name; }
};

class GivenLabelTest : public CertificateImportTest, public testing::WithParamInterface<GivenLabelCase>
{
};

INSTANTIATE_TEST_SUITE_P(
    Labels, GivenLabelTest,
    testing::Values(GivenLabelCase{"plain", "My label", "My label"},
                    GivenLabelCase{"with white space around", " \t\n\v\f\rMy \t label\r\f\v\n\t ", "My \t label"},
                    GivenLabelCase{"of 128 bytes", std::string(127, 'a') + "b", std::string(127, 'a') + "b"},
                    GivenLabelCase{"of 129 bytes", std::string(128, 'a') + "b", std::string(128, 'a')},
                    GivenLabelCase{"of 128 bytes behind blanks", "   " + std::string(128, 'a'),
                                   std::string(128, 'a')}));

TEST_P(GivenLabelTest, IsStoredTrimmedAndCut)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, GetParam().stored));
    EXPECT_EQ(create(templateOf(der, GetParam().given)), success({FOLDER_LINE, ALONE_LINE}));
}

class EmptyLabelTest : public CertificateImportTest, public testing::WithParamInterface<GivenLabelCase>
{
};

INSTANTIATE_TEST_SUITE_P(Labels, EmptyLabelTest,
                         testing::Values(GivenLabelCase{"empty", "", ""}, GivenLabelCase{"blank", " ", ""},
                                         GivenLabelCase{"white space", " \t\n\v\f\r", ""},
                                         GivenLabelCase{"200 blanks", std::string(200, ' '), ""}));

TEST_P(EmptyLabelTest, IsReplacedByTheSecondAndThirdTextOfTheCertificate)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "second text_third text"));
    EXPECT_EQ(create(templateOf(der, GetParam().given)),
              success({labelLine("second text_third text"), FOLDER_LINE, ALONE_LINE}));
}

TEST_F(CertificateImportTest, WithoutALabelGetsTheSecondAndThirdTextOfTheCertificate)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "second text_third text"));
    Template entries;
    entries.add(CKA_VALUE, der);
    EXPECT_EQ(create(entries), success({labelLine("second text_third text"), FOLDER_LINE, ALONE_LINE}));
}

struct ImportedLabelCase {
    std::string second;
    std::string third;
    std::string label;

    friend std::ostream& operator<<(std::ostream& out, const ImportedLabelCase& each)
    {
        return out << each.second.size() << " and " << each.third.size() << " bytes";
    }
};

class ImportedLabelTest : public CertificateImportTest, public testing::WithParamInterface<ImportedLabelCase>
{
};

INSTANTIATE_TEST_SUITE_P(Texts, ImportedLabelTest,
                         testing::Values(ImportedLabelCase{"", "", "_"}, ImportedLabelCase{"a", "", "a_"},
                                         ImportedLabelCase{"", "b", "_b"},
                                         ImportedLabelCase{std::string(64, 'a'), std::string(63, 'b'),
                                                           std::string(64, 'a') + "_" + std::string(63, 'b')},
                                         ImportedLabelCase{std::string(64, 'a'), std::string(64, 'b'),
                                                           std::string(64, 'a') + "_" + std::string(63, 'b')},
                                         ImportedLabelCase{std::string(128, 'a'), "b", std::string(128, 'a')},
                                         ImportedLabelCase{std::string(1000, 'a'), "b", std::string(128, 'a')}));

TEST_P(ImportedLabelTest, IsCutAt128Bytes)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    device_->defaults.detailsOf(der).subjectCommonName = GetParam().second;
    device_->defaults.detailsOf(der).issuerCommonName = GetParam().third;
    expectLeafAlone(newRecord(der, GetParam().label));
    EXPECT_EQ(create(templateOf(der, "")), success({labelLine(GetParam().label), FOLDER_LINE, ALONE_LINE}));
}

// ---- The identifier ----

class IdentifierSizeTest : public CertificateImportTest, public testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Sizes, IdentifierSizeTest, testing::Values(0, 1, 127, 128, 129, 10'000));

TEST_P(IdentifierSizeTest, IsStoredUpTo128Bytes)
{
    const ByteVector der = certificate("Leaf", "Nobody");
    expectLeafAlone(newRecord(der, "leaf", ByteVector(std::min<std::size_t>(GetParam(), 128), 0x5C)));
    Template entries = templateOf(der);
    entries.add(CKA_ID, ByteVector(GetParam(), 0x5C));
    EXPECT_EQ(create(entries).code, CKR_OK);
}

// ---- The folder of the issuers ----

struct Home {
    const char* value; ///< Null: not set.
    bool isUsed;

    friend std::ostream& operator<<(std::ostream& out, const Home& home)
    {
        return out << std::string_view(home.value != nullptr ? home.value : "not set").substr(0, 40);
    }
};

class HomeTest : public CertificateImportTest, public testing::WithParamInterface<Home>
{
protected:
    void setHome() const override
    {
        if (GetParam().value != nullptr)
            test_system::setEnvironment("VELKOR_HOME", GetParam().value);
        else
            test_system::removeEnvironment("VELKOR_HOME");
    }

    static std::string programFolder() { return test_system::program().parent_path().string(); }
};

const std::string LONG_HOME(2000, 'h');

INSTANTIATE_TEST_SUITE_P(Values, HomeTest,
                         testing::Values(Home{LONG_HOME.c_str(), true}, Home{"/home", true}, Home{"C:/Keys/", true},
                                         Home{" ", true}, Home{"", false}, Home{nullptr, false}));

// Where this runs there is none of the folders that are looked for otherwise; behind them comes the program's.
TEST_P(HomeTest, HasTheFolderOfTheIssuersOrElseTheProgramsFolderHasIt)
{
    const std::string base = GetParam().isUsed ? GetParam().value : programFolder();
    const std::string folder = base + "\\VelkorDSC\\Certificates";
    std::vector<std::string> lines = {"CA Folder: " + folder, ALONE_LINE};
    if (!GetParam().isUsed)
        lines.insert(lines.begin(), NO_HOME_LINE);
    const ByteVector der = certificate("Leaf", "Nobody");
    expectFolderRead(folder);
    expectImport(newRecord(der, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(der)), success(lines));
}

constexpr const char* DEFAULT_FOLDERS[] = {"C:/Program Files (x86)/Brenmoor/Velkor",
                                           "C:/Program Files/Brenmoor/Velkor"};

enum class Found { Nothing, Folder, File };

struct DefaultFolders {
    const char* name;
    Found found[2]; ///< In the place of each.
    int used;       ///< Which of them; -1: neither.

    friend std::ostream& operator<<(std::ostream& out, const DefaultFolders& each) { return out << each.name; }
};

/// Makes the default folders. Where drives have no letters they are relative paths, which whoever made the current
/// folder could fill, and are not looked at; then it makes them in a current folder of its own.
class DefaultFolderTest : public CertificateImportTest, public testing::WithParamInterface<DefaultFolders>
{
protected:
    /// Before the module starts: the folder and the environment are the whole process's.
    void setHome() const override
    {
        test_system::removeEnvironment("VELKOR_HOME");
        if (!haveDrivesLetters()) {
            const std::string program = test_system::program().filename().string();
            const auto folder = test_system::scratchFolder(program + ".default." + GetParam().name);
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder);
            before_ = std::filesystem::current_path();
            std::filesystem::current_path(folder);
        }
        for (std::size_t index = 0; index < std::size(DEFAULT_FOLDERS); ++index)
            make(DEFAULT_FOLDERS[index], GetParam().found[index]);
    }

    void TearDown() override
    {
        CertificateImportTest::TearDown();
        for (const char* folder : DEFAULT_FOLDERS) {
            std::error_code notEmpty; // What an installed product has there stays.
            std::filesystem::remove(folder, notEmpty);
        }
        if (!before_.empty())
            std::filesystem::current_path(before_);
    }

    static bool haveDrivesLetters() { return std::filesystem::path(DEFAULT_FOLDERS[0]).is_absolute(); }

    static void make(const std::filesystem::path& path, Found found)
    {
        std::error_code notEmpty; // A run that was stopped may have left one.
        std::filesystem::remove(path, notEmpty);
        if (found == Found::Folder)
            std::filesystem::create_directories(path);
        if (found == Found::File) {
            std::filesystem::create_directories(path.parent_path());
            std::ofstream(path) << "a file";
        }
    }

    mutable std::filesystem::path before_;
};

INSTANTIATE_TEST_SUITE_P(Folders, DefaultFolderTest,
                         testing::Values(DefaultFolders{"First", {Found::Folder, Found::Nothing}, 0},
                                         DefaultFolders{"Second", {Found::Nothing, Found::Folder}, 1},
                                         DefaultFolders{"Both", {Found::Folder, Found::Folder}, 0},
                                         DefaultFolders{"FileBeforeSecond", {Found::File, Found::Folder}, 1},
                                         DefaultFolders{"Files", {Found::File, Found::File}, -1}),
                         [](const auto& each) { return each.param.name; });

TEST_P(DefaultFolderTest, IsTheFirstThatIsAFolderOfADrive)
{
    const int used = haveDrivesLetters() ? GetParam().used : -1;
    const std::string program = test_system::program().parent_path().string();
    const std::string folder = (used < 0 ? program : std::string(DEFAULT_FOLDERS[used])) + "\\VelkorDSC\\Certificates";
    const ByteVector der = certificate("Leaf", "Nobody");
    expectFolderRead(folder);
    expectImport(newRecord(der, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(der)), success({NO_HOME_LINE, "CA Folder: " + folder, ALONE_LINE}));
}

// ---- Leaves without a chain ----

TEST_F(CertificateImportTest, WithAnEmptyFolderIsThatOfTheLeafAlone)
{
    const ByteVector der = certificate("Leaf", "Root");
    expectParsing(der);
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, WithNothingButUnparsableFilesIsThatOfTheLeafAlone)
{
    const ByteVector der = certificate("Leaf", "Root");
    const ByteVector noise = {1, 2, 3};
    putOnDisk(noise);
    putOnDisk({});
    putOnDisk(noise);
    expectParsing(der);
    expectFolderRead();
    expectParsing(noise);
    expectParsing(noise);
    expectImport(newRecord(der, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, missingLine("Root"), ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, WithoutTheIssuerAmongTheFilesIsThatOfTheLeafAlone)
{
    const ByteVector der = certificate("Leaf", "Root");
    issuerOnDisk("Another Root", "Another Root");
    issuerOnDisk("root", "root");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, missingLine("Root"), ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, WithoutTheIssuersIssuerAmongTheFilesIsThatOfTheLeafAlone)
{
    const ByteVector der = certificate("Leaf", "Intermediate");
    issuerOnDisk("Intermediate", "Root");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, missingLine("Root"), ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(CertificateImportTest, OfASelfSignedLeafThatIsNotOnDiskIsThatOfTheLeafAlone)
{
    const ByteVector der = certificate("Self", "Self");
    issuerOnDisk("Another Root", "Another Root");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, missingLine("Self"), ALONE_LINE}));
}

struct Circle {
    std::vector<std::pair<std::string, std::string>> issuers; ///< Subject and issuer.
    std::string repeated;

    friend std::ostream& operator<<(std::ostream& out, const Circle& circle)
    {
        return out << circle.issuers.size() << " certificates, back to " << circle.repeated;
    }
};

class CircleTest : public CertificateImportTest, public testing::WithParamInterface<Circle>
{
};

INSTANTIATE_TEST_SUITE_P(Issuers, CircleTest,
                         testing::Values(Circle{{{"A", "B"}, {"B", "A"}}, "A"},
                                         Circle{{{"A", "B"}, {"B", "C"}, {"C", "A"}}, "A"},
                                         Circle{{{"A", "B"}, {"B", "C"}, {"C", "B"}}, "B"}));

TEST_P(CircleTest, EndsAndLeavesTheLeafAlone)
{
    for (const auto& [subject, issuer] : GetParam().issuers)
        issuerOnDisk(subject, issuer);
    const ByteVector der = certificate("Leaf", "A");
    expectLeafAlone(newRecord(der, "leaf"));
    EXPECT_EQ(create(templateOf(der)), success({FOLDER_LINE, missingLine(GetParam().repeated), ALONE_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

// ---- Chains ----

using ChainImportTest = CertificateImportTest;

TEST_F(ChainImportTest, StoresRootThenIntermediateThenLeafAndGivesTheLeafsHandle)
{
    const ByteVector leaf = certificate("Leaf", "Intermediate");
    const ByteVector intermediate = issuerOnDisk("Intermediate", "Root");
    issuerOnDisk("Another Root", "Another Root");
    const ByteVector root = issuerOnDisk("Root", "Root");
    login();
    expectFolderRead();
    expectImport(newRecord(root, "Root"), USER_PIN);
    expectImport(newRecord(intermediate, "Intermediate"), USER_PIN);
    expectImport(newRecord(leaf, "leaf", {7, 8}), USER_PIN);
    expectLookups();
    Template entries = templateOf(leaf);
    entries.add(CKA_ID, ByteVector{7, 8});
    EXPECT_EQ(create(entries), success({FOLDER_LINE, STORED_LINE, STORED_LINE, STORED_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED + 2);
}

TEST_F(ChainImportTest, ParsesTheLeafThenReadsTheFolderThenParsesItsFiles)
{
    const ByteVector leaf = certificate("Leaf", "Root");
    const ByteVector root = issuerOnDisk("Root", "Root");
    const ByteVector other = issuerOnDisk("Another Root", "Another Root");
    expectParsing(leaf);
    expectFolderRead();
    expectParsing(root);
    expectParsing(other);
    expectImport(newRecord(root, "Root"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE}));
}

TEST_F(ChainImportTest, PassesOverFilesThatCannotBeParsed)
{
    const ByteVector leaf = certificate("Leaf", "Root");
    putOnDisk({1, 2, 3});
    const ByteVector root = issuerOnDisk("Root", "Root");
    putOnDisk({});
    expectFolderRead();
    expectImport(newRecord(root, "Root"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE}));
}

TEST_F(ChainImportTest, OfTwoFilesWithOneNameTheLaterCounts)
{
    const ByteVector leaf = certificate("Leaf", "Intermediate");
    issuerOnDisk("Root", "Root");
    issuerOnDisk("Intermediate", "Root");
    const ByteVector otherRoot = issuerOnDisk("Other Root", "Other Root");
    const ByteVector later = issuerOnDisk("Intermediate", "Other Root");
    expectFolderRead();
    expectImport(newRecord(otherRoot, "Other Root"));
    expectImport(newRecord(later, "Intermediate"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE, STORED_LINE}));
}

TEST_F(ChainImportTest, OfASelfSignedLeafThatIsOnDiskStoresItTwice)
{
    const ByteVector leaf = issuerOnDisk("Self", "Self");
    expectFolderRead();
    expectImport(newRecord(leaf, "Self"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED + 1);
}

class NoIssuerNameTest : public CertificateImportTest, public testing::WithParamInterface<const char*>
{
};

INSTANTIATE_TEST_SUITE_P(Issuers, NoIssuerNameTest, testing::Values("", "O=Example", "CN=,O=Example"));

TEST_P(NoIssuerNameTest, MakesTheLeafAChainOfItsOwn)
{
    const ByteVector leaf = certificate("Leaf", "");
    device_->defaults.detailsOf(leaf).issuer = GetParam();
    issuerOnDisk("", "");
    expectLeafAlone(newRecord(leaf, "leaf"));
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_P(NoIssuerNameTest, EndsTheChainAtItsCertificate)
{
    const ByteVector leaf = certificate("Leaf", "Top");
    const ByteVector top = issuerOnDisk("Top", "");
    device_->defaults.detailsOf(top).issuer = GetParam();
    expectFolderRead();
    expectImport(newRecord(top, "Top"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE}));
}

class IssuerNameLengthTest : public CertificateImportTest, public testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Lengths, IssuerNameLengthTest, testing::Values(127, 128, 129, 5'000));

TEST_P(IssuerNameLengthTest, IsCutTo128BytesInTheLabelOnly)
{
    const std::string name(GetParam(), 'n');
    const ByteVector leaf = certificate("Leaf", name);
    const ByteVector root = issuerOnDisk(name, name);
    expectFolderRead();
    expectImport(newRecord(root, name.substr(0, 128)));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)).code, CKR_OK);
}

TEST_F(ChainImportTest, FindsTheIssuersAmongTenThousandFiles)
{
    const ByteVector leaf = certificate("Leaf", "CA 9999");
    for (int number = 0; number < 9'998; ++number)
        issuerOnDisk("CA " + std::to_string(number), "CA " + std::to_string(number));
    const ByteVector root = issuerOnDisk("Root", "Root");
    const ByteVector intermediate = issuerOnDisk("CA 9999", "Root");
    expectFolderRead();
    expectImport(newRecord(root, "Root"));
    expectImport(newRecord(intermediate, "CA 9999"));
    expectImport(newRecord(leaf, "leaf"));
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE, STORED_LINE}));
}

// ---- Failures of the device ----

class LeafFailureTest : public CertificateImportTest, public testing::WithParamInterface<DeviceFailure>
{
};

INSTANTIATE_TEST_SUITE_P(Statuses, LeafFailureTest, testing::ValuesIn(DEVICE_FAILURES));

TEST_P(LeafFailureTest, EndsTheCallWithoutAHandle)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    expectFolderRead();
    expectFailingImport(GetParam().status);
    EXPECT_EQ(create(templateOf(leaf)), answerOf(FUNCTION, GetParam().code, {FOLDER_LINE, ALONE_LINE},
                                                 "Leaf import failed: " + std::to_string(GetParam().status)));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

class ChainFailureTest : public CertificateImportTest,
                         public testing::WithParamInterface<std::tuple<std::size_t, DeviceFailure>>
{
};

INSTANTIATE_TEST_SUITE_P(PositionsAndStatuses, ChainFailureTest,
                         testing::Combine(testing::Values(0, 1, 2), testing::ValuesIn(DEVICE_FAILURES)));

TEST_P(ChainFailureTest, EndsTheCallAndLeavesWhatWasStoredBefore)
{
    const auto [position, failure] = GetParam();
    const ByteVector leaf = certificate("Leaf", "Intermediate");
    const ByteVector issuers[] = {issuerOnDisk("Root", "Root"), issuerOnDisk("Intermediate", "Root")};
    const char* const labels[] = {"Root", "Intermediate"};
    expectFolderRead();
    std::vector<std::string> lines = {FOLDER_LINE};
    for (std::size_t stored = 0; stored < position; ++stored) {
        expectImport(newRecord(issuers[stored], labels[stored]));
        lines.push_back(STORED_LINE);
    }
    expectFailingImport(failure.status);
    EXPECT_EQ(create(templateOf(leaf)),
              answerOf(FUNCTION, failure.code, lines, "Leaf import failed: " + std::to_string(failure.status)));
    EXPECT_EQ(hObject_, UNTOUCHED);
    EXPECT_EQ(first().certificates.size(), 3 + position);
}

TEST_F(CertificateImportTest, WithAThrowingLibraryIsAFailureOfTheModule)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    expectFolderRead();
    EXPECT_CALL(*device_, velkor_importCertificate).InSequence(script_).WillOnce(Throw(std::runtime_error("broken")));
    EXPECT_EQ(create(templateOf(leaf)), answerOf(FUNCTION, CKR_GENERAL_ERROR, {FOLDER_LINE, ALONE_LINE}, BROKEN_LINE));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(CertificateImportTest, WithAFolderThatThrowsIsAFailureOfTheModule)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    EXPECT_CALL(*device_, velkor_getFilesWithExtensionsAndConvertDER).WillOnce(Throw(std::runtime_error("broken")));
    EXPECT_EQ(create(templateOf(leaf)), answerOf(FUNCTION, CKR_GENERAL_ERROR, {FOLDER_LINE}, BROKEN_LINE));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(CertificateImportTest, ThatTheDeviceDoesNotListLeavesTheHandleAlone)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    expectFolderRead();
    expectFailingImport(0);
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, ALONE_LINE}));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(ChainImportTest, ThatTheDeviceDoesNotListLeavesTheHandleAlone)
{
    const ByteVector leaf = certificate("Leaf", "Root");
    const ByteVector root = issuerOnDisk("Root", "Root");
    expectFolderRead();
    expectImport(newRecord(root, "Root"));
    expectFailingImport(0);
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)), success({FOLDER_LINE, STORED_LINE, STORED_LINE}));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(CertificateImportTest, FindsTheHandleByTheIdentifierThatTheDeviceGave)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    expectFolderRead();
    EXPECT_CALL(*device_, velkor_importCertificate)
        .InSequence(script_)
        .WillOnce([&](auto, auto, VelkorCertificate* certificate, auto) {
            std::copy_n(first().certificates[1].certificateIdentifier, KEY_IDENTIFIER_SIZE,
                        certificate->certificateIdentifier);
            return 0;
        });
    expectLookups();
    EXPECT_EQ(create(templateOf(leaf)).code, CKR_OK);
    EXPECT_EQ(hObject_, 0x70002002u);
}

TEST_F(CertificateImportTest, AnOperationInProgressGoesOn)
{
    const ByteVector leaf = certificate("Leaf", "Nobody");
    EXPECT_CALL(*device_, velkor_getFilesWithExtensionsAndConvertDER).WillRepeatedly(testing::DoDefault());
    EXPECT_CALL(*device_, velkor_importCertificate).WillRepeatedly(testing::DoDefault());
    expectOperationsGoOn([&] { EXPECT_EQ(create(templateOf(leaf)).code, CKR_OK); });
}

// ---- The label of the key pair ----

class AliasTest : public CertificateImportTest
{
protected:
    void SetUp() override
    {
        CertificateImportTest::SetUp();
        leaf_ = certificate("Leaf", "Nobody");
        const VelkorKeyPair& owner = keyPair(2);
        details().publicKey.assign(owner.publicKey, owner.publicKey + owner.publicKeyLength);
    }

    CertificateDetails& details() const { return device_->defaults.detailsOf(leaf_); }

    static void setAlias(VelkorKeyPair& keyPair, const std::string& alias)
    {
        std::fill(std::begin(keyPair.label), std::end(keyPair.label), '\0');
        alias.copy(keyPair.label, LABEL_CAPACITY);
    }

    void expectUpdate(const std::string& alias, int status = 0)
    {
        EXPECT_CALL(*device_, velkor_updateKeyPairDetails(StrEq(FIRST_DEVICE), PointsTo(identifierOf(keyPair(2))),
                                                          StrEq(USER_PIN), StrEq(alias), IsNull(), 0, instance()))
            .InSequence(script_)
            .WillOnce(Return(status));
    }

    void expectLeafWithPin()
    {
        expectFolderRead();
        expectImport(_, USER_PIN);
        expectLookups();
    }

    static std::string updateLine(const std::string& alias) { return "Updating empty key pair alias to: " + alias; }

    ByteVector leaf_;
};

class EmptyAliasTest : public AliasTest, public testing::WithParamInterface<const char*>
{
};

INSTANTIATE_TEST_SUITE_P(Aliases, EmptyAliasTest, testing::Values("", " ", " \t\n\v\f\r "));

TEST_P(EmptyAliasTest, BecomesTheLabelWhileAUserIsLoggedIn)
{
    setAlias(keyPair(2), GetParam());
    login();
    expectLeafWithPin();
    expectUpdate("leaf");
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE, updateLine("leaf")}));
}

TEST_P(EmptyAliasTest, StaysWhileNobodyIsLoggedIn)
{
    setAlias(keyPair(2), GetParam());
    expectLeafAlone(_);
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE, updateLine("leaf")}));
}

TEST_F(AliasTest, IsUpdatedWithTheTrimmedLabelUncut)
{
    const std::string label(129, 'x');
    setAlias(keyPair(2), "");
    login();
    expectLeafWithPin();
    expectUpdate(label);
    EXPECT_EQ(create(templateOf(leaf_, " " + label + " ")), success({FOLDER_LINE, ALONE_LINE, updateLine(label)}));
}

TEST_F(AliasTest, IsUpdatedWithAComputedLabelToo)
{
    setAlias(keyPair(2), "");
    login();
    expectLeafWithPin();
    expectUpdate("second text_third text");
    EXPECT_EQ(create(templateOf(leaf_, "")), success({labelLine("second text_third text"), FOLDER_LINE, ALONE_LINE,
                                                      updateLine("second text_third text")}));
}

TEST_F(AliasTest, IsUpdatedAfterAChainToo)
{
    details().issuer = "CN=Root";
    issuerOnDisk("Root", "Root");
    setAlias(keyPair(2), "");
    login();
    expectFolderRead();
    expectImport(_, USER_PIN);
    expectImport(_, USER_PIN);
    expectLookups();
    expectUpdate("leaf");
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, STORED_LINE, STORED_LINE, updateLine("leaf")}));
}

TEST_F(AliasTest, UpdateThatFailsIsIgnored)
{
    setAlias(keyPair(2), "");
    login();
    expectLeafWithPin();
    expectUpdate("leaf", 40);
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE, updateLine("leaf")}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

class KeptAliasTest : public AliasTest, public testing::WithParamInterface<const char*>
{
};

INSTANTIATE_TEST_SUITE_P(Aliases, KeptAliasTest, testing::Values("alias", " alias ", "\t."));

TEST_P(KeptAliasTest, StaysAsItIs)
{
    setAlias(keyPair(2), GetParam());
    login();
    expectLeafWithPin();
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE}));
}

TEST_F(AliasTest, OfAnotherPublicKeyIsNotUpdated)
{
    for (VelkorKeyPair& each : first().keyPairs)
        setAlias(each, "");
    login();
    details().publicKey.pop_back();
    expectLeafWithPin();
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE}));
    details().publicKey.push_back(0xFF);
    expectLeafWithPin();
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE}));
}

TEST_F(AliasTest, OfTheFirstOfTwoEqualKeysCounts)
{
    first().keyPairs.push_back(keyPair(2));
    setAlias(first().keyPairs.back(), "");
    login();
    expectLeafWithPin();
    EXPECT_EQ(create(templateOf(leaf_)), success({FOLDER_LINE, ALONE_LINE}));
}

// ---- Private keys ----

const ByteVector MODULUS = toBytes("The modulus: " + std::string(243, 'm'));
const std::string PRIVATE_EXPONENT = "The private exponent, which nobody else may see.";
const std::string PRIME = "The first prime, which nobody else may see.";

class KeyImportTest : public ObjectImportTest
{
protected:
    static Template keyTemplate(const ByteVector& modulus = MODULUS)
    {
        Template entries;
        entries.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_MODULUS, modulus);
        entries.add(CKA_PRIVATE_EXPONENT, PRIVATE_EXPONENT).add(CKA_PRIME_1, PRIME);
        return entries;
    }

    static testing::Matcher<ImportPFXDetails*> request(const std::string& label, const ByteVector& objectId,
                                                       const ByteVector& modulus = MODULUS)
    {
        return Pointee(AllOf(Field(&ImportPFXDetails::kind, 2), Field(&ImportPFXDetails::label, label),
                             Field(&ImportPFXDetails::objectId, objectId), Field(&ImportPFXDetails::modulus, modulus),
                             Field(&ImportPFXDetails::privateExponent, toBytes(PRIVATE_EXPONENT)),
                             Field(&ImportPFXDetails::prime1, toBytes(PRIME)),
                             Field(&ImportPFXDetails::keyIdentifier, Each(0))));
    }

    void expectImport(const testing::Matcher<ImportPFXDetails*>& details, const std::string& pin = "")
    {
        EXPECT_CALL(*device_, velkor_importPfx(StrEq(FIRST_DEVICE), StrEq(pin), details, instance()))
            .InSequence(script_);
    }

    void expectImportAnswering(int status)
    {
        EXPECT_CALL(*device_, velkor_importPfx).InSequence(script_).WillOnce(Return(status));
    }

    /// The first key pair that is stored on the first device gets this handle.
    static constexpr CK_OBJECT_HANDLE FIRST_STORED = 0x70000008;
};

TEST_F(KeyImportTest, GivesTheDeviceEveryPartAndReturnsThePrivateKeysHandle)
{
    login();
    Template entries = keyTemplate();
    entries.add(CKA_KEY_TYPE, CKK_RSA).add(CKA_LABEL, " my key ").add(CKA_ID, ByteVector{1, 2});
    expectImport(request(" my key ", {1, 2}), USER_PIN);
    expectKeyPairList();
    EXPECT_EQ(create(entries), success({}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(KeyImportTest, NeedsNeitherLabelNorIdentifierNorLogin)
{
    hSession_ = openSession(READ_ONLY);
    expectImport(request("", {}));
    expectKeyPairList();
    EXPECT_EQ(create(keyTemplate()), success({}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

TEST_F(KeyImportTest, LogsItsEntriesOnly)
{
    expectImport(request("", {}));
    expectKeyPairList();
    EXPECT_EQ(createWithEntryLines(keyTemplate()),
              success({ENTRY_LINE + "0", ENTRY_LINE + "288", ENTRY_LINE + "291", ENTRY_LINE + "292"}));
}

TEST_F(KeyImportTest, TakesTheLastOfSeveralEntries)
{
    Template entries;
    entries.add(CKA_CLASS, CKO_CERTIFICATE).add(CKA_KEY_TYPE, CKK_EC).add(CKA_MODULUS, ByteVector(128, 1));
    entries.add(CKA_PRIVATE_EXPONENT, "another").add(CKA_PRIME_1, "another");
    entries.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_KEY_TYPE, CKK_RSA).add(CKA_MODULUS, MODULUS);
    entries.add(CKA_PRIVATE_EXPONENT, PRIVATE_EXPONENT).add(CKA_PRIME_1, PRIME);
    expectImport(request("", {}));
    expectKeyPairList();
    EXPECT_EQ(create(entries).code, CKR_OK);
}

class KeyTypeTest : public KeyImportTest, public testing::WithParamInterface<CK_KEY_TYPE>
{
};

INSTANTIATE_TEST_SUITE_P(Types, KeyTypeTest, testing::Values(CKK_RSA, CKK_DSA, CKK_DH, CKK_AES, 0xFFFFFFFFu));

TEST_P(KeyTypeTest, OtherThanEcCountsAsRsa)
{
    Template entries = keyTemplate();
    entries.add(CKA_KEY_TYPE, GetParam());
    expectImport(request("", {}));
    expectKeyPairList();
    EXPECT_EQ(create(entries).code, CKR_OK);
}

TEST_F(KeyImportTest, OfAnEcKeyIsRefusedBeforeItsPartsAreLookedAt)
{
    Template entries;
    entries.add(CKA_CLASS, CKO_PRIVATE_KEY).add(CKA_KEY_TYPE, CKK_EC);
    const Answer refused = refusal(CKR_FUNCTION_FAILED, FUNCTION, "ECC keypair not supported for import");
    EXPECT_EQ(create(entries), refused);
    EXPECT_EQ(create(keyTemplate().add(CKA_KEY_TYPE, CKK_EC)), refused);
    EXPECT_EQ(hObject_, UNTOUCHED);
}

class MissingPartTest : public KeyImportTest, public testing::WithParamInterface<CK_ATTRIBUTE_TYPE>
{
};

INSTANTIATE_TEST_SUITE_P(Parts, MissingPartTest, testing::Values(CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1));

TEST_P(MissingPartTest, IsRefusedBeforeTheSizeIsLookedAt)
{
    Template entries;
    entries.add(CKA_CLASS, CKO_PRIVATE_KEY);
    for (const CK_ATTRIBUTE_TYPE type : {CKA_MODULUS, CKA_PRIVATE_EXPONENT, CKA_PRIME_1}) {
        if (type != GetParam())
            entries.add(type, ByteVector(64, 1));
    }
    EXPECT_EQ(create(entries), refusal(CKR_FUNCTION_FAILED, FUNCTION, "Invalid input parameters for import RSA key"));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

class SmallModulusTest : public KeyImportTest, public testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Sizes, SmallModulusTest, testing::Values(1, 64, 127, 128));

TEST_P(SmallModulusTest, IsRefused)
{
    EXPECT_EQ(create(keyTemplate(ByteVector(GetParam(), 1))),
              refusal(CKR_KEY_SIZE_RANGE, FUNCTION,
                      "C_CreateObject: RSA-1024 key import not allowed — key size below 112-bit security strength"));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

class LargeModulusTest : public KeyImportTest, public testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Sizes, LargeModulusTest, testing::Values(129, 256, 384, 512, 100'000));

TEST_P(LargeModulusTest, GoesToTheDevice)
{
    const ByteVector modulus(GetParam(), 1);
    expectImport(request("", {}, modulus));
    expectKeyPairList();
    EXPECT_EQ(create(keyTemplate(modulus)), success({}));
    EXPECT_EQ(hObject_, FIRST_STORED);
}

class KeyIdentifierSizeTest : public KeyImportTest, public testing::WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(Sizes, KeyIdentifierSizeTest, testing::Values(0, 128, 129));

TEST_P(KeyIdentifierSizeTest, IsPassedWhole)
{
    const ByteVector objectId(GetParam(), 0x5C);
    Template entries = keyTemplate();
    entries.add(CKA_ID, objectId);
    expectImport(request("", objectId));
    expectKeyPairList();
    EXPECT_EQ(create(entries).code, CKR_OK);
}

class KeyLabelTest : public KeyImportTest, public testing::WithParamInterface<std::string>
{
};

// Unlike that of a certificate, it is neither trimmed nor cut.
INSTANTIATE_TEST_SUITE_P(Labels, KeyLabelTest, testing::Values(" ", std::string(128, 'a'), std::string(129, 'a')));

TEST_P(KeyLabelTest, IsPassedWhole)
{
    Template entries = keyTemplate();
    entries.add(CKA_LABEL, GetParam());
    expectImport(request(GetParam(), {}));
    expectKeyPairList();
    EXPECT_EQ(create(entries).code, CKR_OK);
}

class KeyFailureTest : public KeyImportTest, public testing::WithParamInterface<DeviceFailure>
{
};

INSTANTIATE_TEST_SUITE_P(Statuses, KeyFailureTest, testing::ValuesIn(DEVICE_FAILURES));

TEST_P(KeyFailureTest, EndsTheCallWithoutAHandle)
{
    expectImportAnswering(GetParam().status);
    EXPECT_EQ(create(keyTemplate()),
              refusal(GetParam().code, FUNCTION,
                      "Import private key into device failed : " + std::to_string(GetParam().status)));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(KeyImportTest, WithAThrowingLibraryIsAFailureOfTheModule)
{
    EXPECT_CALL(*device_, velkor_importPfx).InSequence(script_).WillOnce(Throw(std::runtime_error("broken")));
    EXPECT_EQ(create(keyTemplate()), refusal(CKR_GENERAL_ERROR, FUNCTION, BROKEN_LINE));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(KeyImportTest, ThatTheDeviceDoesNotListLeavesTheHandleAlone)
{
    expectImportAnswering(0);
    expectKeyPairList();
    EXPECT_EQ(create(keyTemplate()), success({}));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(KeyImportTest, FindsTheHandleByTheIdentifierThatTheDeviceGave)
{
    EXPECT_CALL(*device_, velkor_importPfx)
        .InSequence(script_)
        .WillOnce([&](auto, auto, ImportPFXDetails* details, auto) {
            std::copy_n(keyPair(5).keyIdentifier, KEY_IDENTIFIER_SIZE, details->keyIdentifier);
            return 0;
        });
    expectKeyPairList();
    EXPECT_EQ(create(keyTemplate()).code, CKR_OK);
    EXPECT_EQ(hObject_, 0x70000005u);
}

TEST_F(KeyImportTest, AnOperationInProgressGoesOn)
{
    EXPECT_CALL(*device_, velkor_importPfx).WillRepeatedly(testing::DoDefault());
    expectOperationsGoOn([&] { EXPECT_EQ(create(keyTemplate()).code, CKR_OK); });
}

// ---- Other classes ----

class OtherClassTest : public ObjectImportTest, public testing::WithParamInterface<CK_OBJECT_CLASS>
{
};

INSTANTIATE_TEST_SUITE_P(Classes, OtherClassTest,
                         testing::Values(CKO_DATA, CKO_PUBLIC_KEY, CKO_SECRET_KEY, CKO_HW_FEATURE,
                                         CKO_DOMAIN_PARAMETERS, CKO_VENDOR_DEFINED, 0xFFFFFFFFu));

TEST_P(OtherClassTest, IsNotSupported)
{
    Template entries;
    entries.add(CKA_CLASS, GetParam()).add(CKA_VALUE, "value");
    EXPECT_EQ(create(entries), refusal(CKR_FUNCTION_NOT_SUPPORTED, FUNCTION,
                                       "Provided object class not supported : " + logged(GetParam())));
    EXPECT_EQ(hObject_, UNTOUCHED);
}

TEST_F(ObjectImportTest, ReadsNoFurtherThanAShortClassGoes)
{
    Template entries;
    entries.add(CKA_CLASS, ByteVector{CKO_SECRET_KEY});
    EXPECT_EQ(create(entries),
              refusal(CKR_FUNCTION_NOT_SUPPORTED, FUNCTION, "Provided object class not supported : 4"));
}

} // namespace
