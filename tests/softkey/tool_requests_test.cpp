// The commands of the tool that have a key pair sign for itself, looked at by OpenSSL's own program.
#include "tool_fixture.h"

namespace softkey::test
{
namespace
{

bool holds(const std::string& whole, const std::string& part)
{
    return whole.find(part) != std::string::npos;
}

TEST_F(ToolTest, ARequestIsSignedByItsKeyPairAndHasItsNames)
{
    REQUIRE_OPENSSL_PROGRAM();
    generate(KEY_KIND_RSA_2048);
    generate(KEY_KIND_EC_P384);
    const std::string request = scratch.file(
        "r.pem", bytesOf(tool("csr KEY1 1 --subject \"CN=Ann M\\, Example,O=Example Ltd,C=DE\" --name ann.example.org "
                              "--name ann@example.org --name 192.0.2.1 --name https://example.org/ann" +
                              WITH_PIN)
                             .out));
    const std::string text = shown("req -verify -noout -text -nameopt RFC2253 -in " + request);
    EXPECT_TRUE(holds(text, "Subject: CN=Ann M\\, Example,O=Example Ltd,C=DE")) << text;
    EXPECT_TRUE(holds(text, "DNS:ann.example.org, email:ann@example.org, IP Address:192.0.2.1, "
                            "URI:https://example.org/ann"))
        << text;
    EXPECT_TRUE(holds(text, "sha256WithRSAEncryption")) << text;
    EXPECT_EQ(shown("req -noout -pubkey -in " + request), publicKeyPem(keyPairs()[0]));

    EXPECT_EQ(tool("csr --subject CN=x --name a.example.org KEY1 1" + WITH_PIN).exitCode, 0) << "one value a --name";
    EXPECT_EQ(tool("csr KEY1 2 --subject /C=DE/CN=Ann --out " + path("e.pem") + WITH_PIN).out, "");
    const std::string ec = shown("req -verify -noout -text -nameopt RFC2253 -in " + path("e.pem"));
    EXPECT_TRUE(holds(ec, "Subject: CN=Ann,C=DE") && holds(ec, "ecdsa-with-SHA384")) << ec;
    EXPECT_TRUE(holds(shown("req -noout -subject -in " +
                            scratch.file("b.pem", bytesOf(tool("csr KEY1 2 --subject Bob" + WITH_PIN).out))),
                      "CN = Bob"));
}

TEST_F(ToolTest, AKeyPairSignsACertificateForItself)
{
    REQUIRE_OPENSSL_PROGRAM();
    generate(KEY_KIND_RSA_2048, "signing", {0x0a});
    const json made =
        result("self-sign KEY1 1 --subject CN=Ann --name ann@example.org --days 30 --out " + path("s.pem") + WITH_PIN);
    EXPECT_EQ(made["number"], 1);
    EXPECT_EQ(tool("export-certificate KEY1 1").out, textOf(readFile(path("s.pem"))));
    const VelkorCertificate stored = certificates().at(0);
    EXPECT_STREQ(stored.label, "signing") << "that of its key pair";
    EXPECT_EQ(stored.objectId[0], 0x0a);
    EXPECT_EQ(shown("verify -CAfile " + path("s.pem") + " " + path("s.pem")), path("s.pem") + ": OK\n");
    EXPECT_EQ(shown("x509 -noout -pubkey -in " + path("s.pem")), publicKeyPem(keyPairs()[0]));
    const std::string all = shown("x509 -noout -text -in " + path("s.pem"));
    for (const std::string part : {"Issuer: CN = Ann", "Subject: CN = Ann", "email:ann@example.org", "CA:FALSE",
                                   "Digital Signature, Key Encipherment"})
        EXPECT_TRUE(holds(all, part)) << part << " is not in " << all;
    EXPECT_EQ(run("openssl x509 -noout -checkend " + std::to_string(29 * 86400) + " -in " + path("s.pem")).exitCode, 0);
    EXPECT_EQ(run("openssl x509 -noout -checkend " + std::to_string(31 * 86400) + " -in " + path("s.pem")).exitCode, 1);
    EXPECT_EQ(result("self-sign KEY1 1 --subject CN=Ann --label other" + WITH_PIN)["number"], 2)
        << "each has a serial number of its own";
    EXPECT_STREQ(certificates().at(1).label, "other");
}

TEST_F(ToolTest, WhatCannotBeRequestedIsRefusedBeforeAPinIsAsked)
{
    REQUIRE_PATHS_IN_EXCEPTIONS();
    generate(KEY_KIND_EC_P256);
    EXPECT_EQ(tool("generate KEY1 RSA-1024 --usage decrypt" + WITH_PIN).exitCode, 0);
    const std::string unread = " --pin-env NOT_SET";
    for (const std::string command : {"csr KEY1 ", "self-sign KEY1 "}) {
        expectFailure(command + "1" + unread, 2, {}, "--subject is required");
        expectFailure(command + "1 --subject \"\"" + unread, 2, {}, "the subject is empty");
        expectFailure(command + "1 --subject CN=" + unread, 2, {}, "is no value of CN");
        expectFailure(command + "1 --subject C=Germany" + unread, 2, {}, "\"Germany\" is no value of C");
        expectFailure(command + "1 --subject XX=y" + unread, 2, {}, "there is no \"XX\" in a name");
        expectFailure(command + "1 --subject CN=y,z" + unread, 2, {}, "is no TYPE=VALUE");
        expectFailure(command + "1 --subject CN=y --name IP:here" + unread, 2, {}, "\"IP:here\" is no name of a host");
        expectFailure(command + "1 --subject CN=y --name \"a b\"" + unread, 2);
        expectFailure(command + "3 --subject CN=y" + unread, 5);
        expectFailure(command + "2 --subject CN=y" + unread, 1, {}, "key pair 2 does not sign");
        expectFailure(command + "1 --subject CN=y --pin-env WRONG", 3);
    }
    expectFailure("self-sign KEY1 1 --subject CN=y --days 0" + unread, 2);
    expectFailure("self-sign KEY1 1 --subject CN=y --days 40000" + unread, 2);
    expectFailure("csr KEY1 1 --subject CN=y --out " + path("no/folder") + unread, 9, {}, "cannot write ");
    expectFailure("csr KEY1 1 --subject CN=y --out " + path(".") + unread, 9, {}, "cannot write ");
    EXPECT_TRUE(certificates().empty());
    EXPECT_EQ(triesLeft(), 3) << "spent by the wrong PINs alone";
}

} // namespace
} // namespace softkey::test
