// The commands of the tool about what is on a key: what they write is read by OpenSSL's own program.
#include "tool_fixture.h"

#include "crypto/certificate.h"

namespace softkey::test
{
namespace
{

CertificateDetails detailsOf(const VelkorCertificate& certificate)
{
    return certificateDetails(parseCertificate(certificate.der).get());
}

TEST_F(ToolTest, APublicKeyIsWrittenInEveryFormWithoutAPin)
{
    REQUIRE_OPENSSL_PROGRAM();
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-key KEY1 " + path("k.pem") + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("generate KEY1 P-384" + WITH_PIN).exitCode, 0);
    const std::string pem = run("openssl pkey -in " + path("k.pem") + " -pubout").out;
    EXPECT_EQ(tool("public-key KEY1 1").out, pem);
    EXPECT_EQ(tool("public-key KEY1 1 --format PEM --json").out, pem);
    EXPECT_EQ(tool("public-key KEY1 1 --format der --out " + path("p.der")).exitCode, 0);
    EXPECT_EQ(run("openssl pkey -pubin -inform DER -in " + path("p.der") + " -pubout").out, pem);
    EXPECT_EQ(tool("public-key KEY1 2").out, publicKeyPem(keyPairs()[1]));
    EXPECT_EQ(tool("public-key KEY1 2 --der").out, textOf(publicKeyInfo(keyPairs()[1])));
    EXPECT_EQ(tool("unplug KEY1").exitCode, 0);
    EXPECT_EQ(tool("public-key KEY1 1").out, pem) << "for reading it need not be plugged in";
}

TEST_F(ToolTest, APublicKeyIsALineForOpenSsh)
{
    store(keyOf(signatureVectorKey()).get());
    storeEcKey(KEY_KIND_EC_P256, std::string(63, '0') + "1");
    const std::string rsa =
        "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAAAgQCQnRxA2osIQL59DmJlOcWIT5B7UF1+Vz3u7h1mxbc+ajjzdqr0zdl0"
        "QQNOmn8FXVtT+TVnOTNkzcWRuPhmaMripfsUMurDiDOB580pnH26q6dKIqAiY2eL5DzMAcuTayD3yWgoRSRpHx/6KK2P"
        "AKipKdqZvEs711d0ORLl3nCIUQ==";
    EXPECT_EQ(tool("public-key KEY1 1 --format openssh").out, rsa + "\n");
    EXPECT_EQ(tool("public-key KEY1 2 --format OpenSSH").out,
              "ecdsa-sha2-nistp256 AAAAE2VjZHNhLXNoYTItbmlzdHAyNTYAAAAIbmlzdHAyNTYAAABBBGsX0fLhLEJH+Lzm5WOkQPJ3A32BLesz"
              "oPShOUXYmMKWT+NC4v4af5uO5+tKfA+eFivOM1drMV7Oy7ZAaDe/UfU=\n");
    generate(KEY_KIND_EC_P256, "for the\nserver");
    const std::string line = tool("public-key KEY1 3 --format openssh").out;
    EXPECT_TRUE(line.ends_with("= for the?server\n")) << "a label ends no line: " << line;
}

TEST_F(ToolTest, APublicKeyThatIsNotThereOrCannotBeWrittenIsRefused)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    generate(KEY_KIND_EC_P256);
    expectFailure("public-key KEY1 2", 5, {}, "number 2 (velkor-softkey info shows the numbers)");
    expectFailure("public-key NONE 1", 5);
    expectFailure("public-key KEY1 1 --format jpeg", 2);
    expectFailure("public-key KEY1 1 --format pem --der", 2);
    expectFailure("public-key KEY1 1 --out " + path("no/such/folder"), 9, {}, "cannot write " + path("no/such/folder"));
}

TEST_F(ToolTest, LabelsAndIdsAreChangedEachByItself)
{
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-key KEY1 " + path("k.pem") + " --label old --id 01" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("relabel KEY1 --label \"My key\"" + WITH_PIN).out, "changed\n");
    EXPECT_EQ(tool("relabel KEY1 --key 1 --label new" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(result("relabel KEY1 --certificate 1 --id 0a0b" + WITH_PIN)["serial"], "KEY1");
    const json info = result("info KEY1");
    EXPECT_EQ(info["label"], "My key");
    EXPECT_EQ(info["keyPairs"][0]["label"], "new");
    EXPECT_EQ(info["keyPairs"][0]["id"], "01");
    EXPECT_EQ(info["certificates"][0]["label"], "old");
    EXPECT_EQ(info["certificates"][0]["id"], "0a0b");
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "My key") << "a running library sees it";
    EXPECT_EQ(tool("verify KEY1" + WITH_PIN).exitCode, 0) << "the change is under the key's own code";
    EXPECT_EQ(trySign(keyPairs()[0], Data(32, 1)), 0);
}

TEST_F(ToolTest, AChangeOfLabelThatMakesNoSenseChangesNothing)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    generate(KEY_KIND_EC_P256, "pair");
    const std::string unread = " --pin-env NOT_SET";
    expectFailure("relabel KEY1" + unread, 2, {}, "nothing to change: use --label or --id");
    expectFailure("relabel KEY1 --id 01" + unread, 2, {}, "--id is for --key or --certificate");
    expectFailure("relabel KEY1 --key 1 --id xy" + unread, 2);
    expectFailure("relabel KEY1 --key 1 --label \"\"" + unread, 2, {}, "a label has 1 to 128 bytes");
    expectFailure("relabel KEY1 --key 1 --label " + std::string(129, 'x') + unread, 2);
    expectFailure("relabel KEY1 --label " + std::string(64, 'x') + unread, 2, {}, "a label has up to 63 bytes");
    expectFailure("relabel KEY1 --key 1 --certificate 1 --label x" + unread, 2);
    expectFailure("relabel KEY1 --certificate 1 --label x" + unread, 5);
    expectFailure("relabel KEY1 --key 2 --label x" + unread, 5);
    expectFailure("relabel KEY1 --key 1 --label x --pin-env WRONG", 3);
    EXPECT_EQ(triesLeft(), 4) << "spent by the wrong PIN alone";
    EXPECT_STREQ(keyPairs()[0].label, "pair");
    EXPECT_EQ(velkor_getTokenInfo(SERIAL, instance).label, "Velkor Soft Key");
    EXPECT_EQ(tool("unplug KEY1").exitCode, 0);
    expectFailure("relabel KEY1 --label x" + WITH_PIN, 5);
}

TEST_F(ToolTest, TheTreeHasCertificatesBelowTheirKeyPairs)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    makeKeyAndCertificate();
    EXPECT_EQ(tool("import-key KEY1 " + path("k.pem") + " --label pair --id 01" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("generate KEY1 P-256 --label ec" + WITH_PIN).exitCode, 0);
    const std::string other = scratch.file("other.der", certificateNamed("Other"));
    EXPECT_EQ(tool("import-certificate KEY1 " + other + " --label other" + WITH_PIN).exitCode, 0);
    EXPECT_EQ(tool("import-certificate KEY1 " + path("c.pem") + WITH_PIN).exitCode, 0);
    writeFile(keyPath("JUNK"), bytesOf("junk"));

    const std::string until = detailsOf(certificates()[1]).notAfter.substr(0, 10);
    const std::string otherUntil = detailsOf(certificates()[0]).notAfter.substr(0, 10);
    EXPECT_EQ(tool("list --tree").out, "JUNK  unusable   not a key file\n"
                                       "KEY1  plugged    Velkor Soft Key\n"
                                       "|-- key pair 1  RSA-2048  id 01  pair\n"
                                       "|   `-- certificate 2  id 01  pair  CN=Tool, until " +
                                           until +
                                           "\n"
                                           "|-- key pair 2  P-256  id   ec\n"
                                           "`-- certificate 1  id   other  CN=Other, until " +
                                           otherUntil + "\n");
    const json keys = result("list --tree");
    EXPECT_EQ(keys[0]["error"], "not a key file");
    ASSERT_EQ(keys[1]["keyPairs"].size(), 2U);
    EXPECT_EQ(keys[1]["keyPairs"][0]["certificates"][0]["number"], 2);
    EXPECT_EQ(keys[1]["keyPairs"][1]["certificates"], json::array());
    EXPECT_EQ(keys[1]["certificates"].size(), 1U);
    EXPECT_EQ(keys[1]["certificates"][0]["label"], "other");
    EXPECT_FALSE(result("list")[1].contains("keyPairs")) << "as before";
}

} // namespace
} // namespace softkey::test
