// The command import of the tool, with files that OpenSSL's own program has made.
#include "tool_fixture.h"

namespace softkey::test
{
namespace
{

class FileImportTest : public ToolTest
{
protected:
    void SetUp() override
    {
        REQUIRE_OPENSSL_PROGRAM();
        ToolTest::SetUp();
        makeKeyAndCertificate();
        test_system::setEnvironment("PASS", "file-secret");
        test_system::setEnvironment("BAD_PASS", "another");
    }

    /// A file that openssl makes; its path.
    std::string made(const std::string& name, const std::string& command) const
    {
        const Outcome outcome = run("openssl " + command + " -out " + path(name));
        EXPECT_EQ(outcome.exitCode, 0) << command << ": " << outcome.error;
        return path(name);
    }

    void expectImported(const std::string& file, const std::string& passPhrase, std::size_t certificateCount) const
    {
        const json told = result("import KEY1 " + file + " --label mine --id 0b" + passPhrase + WITH_PIN);
        EXPECT_EQ(told["keyPair"]["number"], 1) << file;
        EXPECT_EQ(told["certificates"].size(), certificateCount) << file;
        const json info = result("info KEY1");
        EXPECT_EQ(info["keyPairs"][0]["label"], "mine");
        EXPECT_EQ(info["keyPairs"][0]["id"], "0b");
        if (certificateCount > 0) {
            EXPECT_EQ(info["certificates"][0]["id"], "0b");
            EXPECT_EQ(tool("export-certificate KEY1 1").out, textOf(readFile(path("c.pem"))));
            EXPECT_EQ(tool("delete KEY1 --certificate 1" + WITH_PIN).exitCode, 0);
        }
        EXPECT_EQ(tool("public-key KEY1 1").out, shown("pkey -in " + path("k.pem") + " -pubout"));
        EXPECT_EQ(trySign(keyPairs().at(0), Data(32, 1)), 0) << file;
        EXPECT_EQ(tool("delete KEY1 --key 1" + WITH_PIN).exitCode, 0);
    }
};

const std::string WITH_PASS = " --passphrase-env PASS";

TEST_F(FileImportTest, KeysComeInEveryFormEncryptedOrNot)
{
    const std::string k = path("k.pem");
    const std::string encrypting = " -passout pass:file-secret -in " + k;
    expectImported(k, "", 0);
    expectImported(made("k.der", "pkey -outform DER -in " + k), "", 0);
    expectImported(made("k1.pem", "rsa -traditional -in " + k), "", 0);
    expectImported(made("e8.pem", "pkcs8 -topk8 -v2 aes-256-cbc" + encrypting), WITH_PASS, 0);
    expectImported(made("e8.der", "pkcs8 -topk8 -v2 aes-256-cbc -outform DER" + encrypting), WITH_PASS, 0);
    expectImported(made("e1.pem", "rsa -traditional -aes128" + encrypting), WITH_PASS, 0);
}

TEST_F(FileImportTest, AFileMayHoldAKeyAndItsCertificates)
{
    const Data key = readFile(path("k.pem"));
    const Data certificate = readFile(path("c.pem"));
    const Data other = certificatePem(certificateNamed("Issuer"));
    const auto joined = [](Data first, const Data& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    };
    expectImported(scratch.file("kc.pem", joined(key, certificate)), "", 1);
    expectImported(scratch.file("ck.pem", joined(certificate, key)), "", 1);
    const json both =
        result("import KEY1 " + scratch.file("two.pem", joined(certificate, other)) + " --label first" + WITH_PIN);
    EXPECT_FALSE(both.contains("keyPair"));
    EXPECT_EQ(both["certificates"].size(), 2U);
    EXPECT_STREQ(certificates()[0].label, "first");
    EXPECT_STREQ(certificates()[1].label, "") << "the label is for the first alone";
}

TEST_F(FileImportTest, Pkcs12FilesAreTakenWithTheirPassPhrase)
{
    const std::string exporting =
        "pkcs12 -export -inkey " + path("k.pem") + " -in " + path("c.pem") + " -passout pass:";
    expectImported(made("a.p12", exporting + "file-secret"), WITH_PASS, 1);
    expectImported(made("b.p12", exporting), "", 1);
    const Outcome fromDescriptor =
        tool("import KEY1 " + path("a.p12") + " --passphrase-fd 0 --pin-fd 0", "file-secret\r\n" + std::string(PIN));
    EXPECT_EQ(fromDescriptor.out, "key pair 1  RSA-2048\ncertificate 1\n") << fromDescriptor.error;
    EXPECT_EQ(tool("verify KEY1" + WITH_PIN).exitCode, 0);
}

TEST_F(FileImportTest, ACertificateIsWrittenAsPkcs12AndTakenFromIt)
{
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    const std::string exporting = "export-certificate KEY1 1 --format pkcs12 --out ";
    expectFailure(exporting + path("a.p12") + " --passphrase-env NOT_SET", 3, {}, "NOT_SET is not set");
    expectFailure(exporting + path("no/folder") + " --passphrase-env NOT_SET", 9);
    EXPECT_EQ(tool(exporting + path("a.p12") + WITH_PASS).exitCode, 0);
    const std::string held = shown("pkcs12 -nodes -passin pass:file-secret -in " + path("a.p12"));
    EXPECT_NE(held.find(textOf(readFile(path("c.pem")))), std::string::npos) << held;
    EXPECT_EQ(held.find("PRIVATE KEY"), std::string::npos) << held;
    EXPECT_EQ(tool("delete KEY1 --certificate 1" + WITH_PIN).exitCode, 0);
    expectFailure("import KEY1 " + path("a.p12") + " --passphrase-env BAD_PASS" + WITH_PIN, 8);
    EXPECT_EQ(tool("import KEY1 " + path("a.p12") + WITH_PASS + WITH_PIN).out, "certificate 1\n");
    EXPECT_EQ(tool("export-certificate KEY1 1").out, textOf(readFile(path("c.pem"))));
}

TEST_F(FileImportTest, WhatCannotBeImportedIsRefusedAndChangesNothing)
{
    const std::string unread = " --pin-env NOT_SET";
    const std::string p12 = made("a.p12", "pkcs12 -export -inkey " + path("k.pem") + " -in " + path("c.pem") +
                                              " -passout pass:file-secret");
    const std::string e8 = made("e8.pem", "pkcs8 -topk8 -passout pass:file-secret -in " + path("k.pem"));
    for (const std::string& file : {p12, e8}) {
        expectFailure("import KEY1 " + file + " --passphrase-env BAD_PASS" + unread, 8, {},
                      "the pass phrase is not right");
        expectFailure("import KEY1 " + file + " --passphrase-env NOT_SET" + unread, 3, {}, "NOT_SET is not set");
    }
    expectFailure("import KEY1 " + path("k.pem") + " --id x" + unread, 2);
    expectFailure("import KEY1 " + path("none") + unread, 2, {}, "cannot read " + path("none"));
    for (const std::string content : {"junk", "", "-----BEGIN CERTIFICATE-----\n"})
        expectFailure("import KEY1 " + scratch.file("junk", bytesOf(content)) + unread, 8, {},
                      "neither a private key nor a certificate");
    expectFailure("import KEY1 " + made("ed.pem", "genpkey -algorithm ed25519") + unread, 8, {},
                  "a kind or size that is not supported");
    expectFailure("import KEY1 " + path("k.pem") + " --pin-env WRONG", 3);
    EXPECT_TRUE(keyPairs().empty());
    EXPECT_TRUE(certificates().empty());
}

} // namespace
} // namespace softkey::test
