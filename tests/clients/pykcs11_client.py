"""What programs do with PyKCS11 on the first token of a module.

    pykcs11_client.py MODULE NUMBER THING

A THING is the name of a function below that takes a client. NUMBER is the ID of the keys that it makes.
"""
import sys
from dataclasses import dataclass

import PyKCS11
from PyKCS11 import LowLevel as C

SHA256_RSA_PKCS = PyKCS11.Mechanism(C.CKM_SHA256_RSA_PKCS, None)
P256 = (C.CKA_EC_PARAMS, list(bytes.fromhex("06082a8648ce3d030107")))


@dataclass
class Client:
    module: PyKCS11.PyKCS11Lib
    slot: int
    session: PyKCS11.Session
    number: int

    def rsa_pair(self, of_private):
        """The label is in the public template; what the private one has besides what every pair wants, the caller says."""
        return self.session.generateKeyPair(
            [(C.CKA_CLASS, C.CKO_PUBLIC_KEY), (C.CKA_TOKEN, C.CK_TRUE), (C.CKA_PRIVATE, C.CK_FALSE),
             (C.CKA_MODULUS_BITS, 2048), (C.CKA_PUBLIC_EXPONENT, (1, 0, 1)), (C.CKA_ENCRYPT, C.CK_TRUE),
             (C.CKA_VERIFY, C.CK_TRUE), (C.CKA_VERIFY_RECOVER, C.CK_TRUE), (C.CKA_WRAP, C.CK_TRUE),
             (C.CKA_LABEL, "python"), (C.CKA_ID, (self.number,))],
            [(C.CKA_CLASS, C.CKO_PRIVATE_KEY), (C.CKA_TOKEN, C.CK_TRUE), (C.CKA_PRIVATE, C.CK_TRUE),
             (C.CKA_DECRYPT, C.CK_TRUE), (C.CKA_SIGN, C.CK_TRUE), (C.CKA_SIGN_RECOVER, C.CK_TRUE),
             (C.CKA_UNWRAP, C.CK_TRUE), (C.CKA_ID, (self.number,)), *of_private])

    def labelled_pair(self):
        return self.rsa_pair([(C.CKA_LABEL, "python")])

    def ec_pair(self, of_private):
        return self.session.generateKeyPair([P256], [(C.CKA_LABEL, "ec"), *of_private], PyKCS11.MechanismECGENERATEKEYPAIR)


def pads_label(client):
    assert client.module.getTokenInfo(client.slot).label == "Client key".ljust(32), "labels are padded with blanks"


def labels_pair(client):
    _, private = client.rsa_pair([])
    assert client.session.getAttributeValue(private, [C.CKA_LABEL, C.CKA_ID]) == ["python", (client.number,)]


def keeps_exponent(client):
    _, private = client.labelled_pair()
    assert client.session.getAttributeValue(private, [C.CKA_PRIVATE_EXPONENT]) == [None]


def signs(client):
    public, private = client.labelled_pair()
    signature = client.session.sign(private, "text", SHA256_RSA_PKCS)
    assert client.session.verify(public, "text", signature, SHA256_RSA_PKCS)
    assert not client.session.verify(public, "another", signature, SHA256_RSA_PKCS)


def signs_pss(client):
    public, private = client.labelled_pair()
    pss = PyKCS11.RSA_PSS_Mechanism(C.CKM_SHA256_RSA_PKCS_PSS, C.CKM_SHA256, C.CKG_MGF1_SHA256, 32)
    assert client.session.verify(public, "text", client.session.sign(private, "text", pss), pss)


def decrypts(client):
    public, private = client.labelled_pair()
    for cipher in (PyKCS11.Mechanism(C.CKM_RSA_PKCS, None), PyKCS11.RSAOAEPMechanism(C.CKM_SHA_1, C.CKG_MGF1_SHA1)):
        encrypted = client.session.encrypt(public, "secret", cipher)
        assert bytes(client.session.decrypt(private, encrypted, cipher)) == b"secret"


def digests(client):
    digest = bytes(client.session.digest("abc", PyKCS11.Mechanism(C.CKM_SHA256, None)))
    assert digest.hex().startswith("ba7816bf8f01cfea")


def keeps_note(client):
    client.session.createObject([(C.CKA_CLASS, C.CKO_DATA), (C.CKA_TOKEN, C.CK_FALSE), (C.CKA_LABEL, "note"),
                                 (C.CKA_VALUE, list(b"data"))])
    assert len(client.session.findObjects([(C.CKA_LABEL, "note")])) == 1


def finds(client):
    _, private = client.rsa_pair([(C.CKA_LABEL, "found")])
    found = client.session.findObjects([(C.CKA_CLASS, C.CKO_PRIVATE_KEY), (C.CKA_LABEL, "found")])
    assert [key.value() for key in found] == [private.value()]


def makes_ec_pair(client):
    public, _ = client.ec_pair([])
    assert client.session.getAttributeValue(public, [C.CKA_KEY_TYPE]) == [C.CKK_EC]


def derives(client):
    public, private = client.ec_pair([(C.CKA_KEY_TYPE, C.CKK_EC), (C.CKA_DERIVE, C.CK_TRUE)])
    point = bytes(client.session.getAttributeValue(public, [C.CKA_EC_POINT])[0])
    secret = client.session.deriveKey(private, [(C.CKA_CLASS, C.CKO_SECRET_KEY), (C.CKA_KEY_TYPE, C.CKK_GENERIC_SECRET)],
                                      PyKCS11.ECDH1_DERIVE_Mechanism(point))
    assert len(client.session.getAttributeValue(secret, [C.CKA_VALUE])[0]) == 32


def destroys(client):
    _, private = client.labelled_pair()
    client.session.destroyObject(private)
    assert not client.session.findObjects([(C.CKA_CLASS, C.CKO_PRIVATE_KEY), (C.CKA_ID, (client.number,))])


def destroys_both(client):
    public, private = client.labelled_pair()
    client.session.destroyObject(private)
    client.session.destroyObject(public)


def is_refused_second_login(client):
    try:
        client.session.login("1234")
        raise AssertionError("a second login is refused")
    except PyKCS11.PyKCS11Error as error:
        assert error.value == C.CKR_USER_ALREADY_LOGGED_IN


def main(path, number, thing):
    module = PyKCS11.PyKCS11Lib()
    module.load(path)
    slot = module.getSlotList(tokenPresent=True)[0]
    session = module.openSession(slot, C.CKF_SERIAL_SESSION | C.CKF_RW_SESSION)
    session.login("1234")
    globals()[thing](Client(module, slot, session, int(number)))
    session.logout()
    session.closeSession()


main(*sys.argv[1:])
