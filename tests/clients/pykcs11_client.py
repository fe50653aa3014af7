"""What programs do with PyKCS11, on the first token of the module that is the argument."""
import sys

import PyKCS11
from PyKCS11 import LowLevel as C

module = PyKCS11.PyKCS11Lib()
module.load(sys.argv[1])
slot = module.getSlotList(tokenPresent=True)[0]
assert len(module.getTokenInfo(slot).label) == 32, "labels are padded with blanks"
session = module.openSession(slot, C.CKF_SERIAL_SESSION | C.CKF_RW_SESSION)
session.login("1234")

public, private = session.generateKeyPair(
    [(C.CKA_CLASS, C.CKO_PUBLIC_KEY), (C.CKA_TOKEN, C.CK_TRUE), (C.CKA_PRIVATE, C.CK_FALSE),
     (C.CKA_MODULUS_BITS, 2048), (C.CKA_PUBLIC_EXPONENT, (1, 0, 1)), (C.CKA_ENCRYPT, C.CK_TRUE),
     (C.CKA_VERIFY, C.CK_TRUE), (C.CKA_VERIFY_RECOVER, C.CK_TRUE), (C.CKA_WRAP, C.CK_TRUE), (C.CKA_LABEL, "python"),
     (C.CKA_ID, (0x22,))],
    [(C.CKA_CLASS, C.CKO_PRIVATE_KEY), (C.CKA_TOKEN, C.CK_TRUE), (C.CKA_PRIVATE, C.CK_TRUE),
     (C.CKA_DECRYPT, C.CK_TRUE), (C.CKA_SIGN, C.CK_TRUE), (C.CKA_SIGN_RECOVER, C.CK_TRUE), (C.CKA_UNWRAP, C.CK_TRUE),
     (C.CKA_ID, (0x22,))])
assert session.getAttributeValue(private, [C.CKA_LABEL, C.CKA_ID]) == ["python", (0x22,)]
assert session.getAttributeValue(private, [C.CKA_PRIVATE_EXPONENT]) == [None]

pkcs = PyKCS11.Mechanism(C.CKM_SHA256_RSA_PKCS, None)
signature = session.sign(private, "text", pkcs)
assert session.verify(public, "text", signature, pkcs)
assert not session.verify(public, "another", signature, pkcs)
pss = PyKCS11.RSA_PSS_Mechanism(C.CKM_SHA256_RSA_PKCS_PSS, C.CKM_SHA256, C.CKG_MGF1_SHA256, 32)
assert session.verify(public, "text", session.sign(private, "text", pss), pss)

for cipher in (PyKCS11.Mechanism(C.CKM_RSA_PKCS, None), PyKCS11.RSAOAEPMechanism(C.CKM_SHA_1, C.CKG_MGF1_SHA1)):
    assert bytes(session.decrypt(private, session.encrypt(public, "secret", cipher), cipher)) == b"secret"

digest = bytes(session.digest("abc", PyKCS11.Mechanism(C.CKM_SHA256, None)))
assert digest.hex().startswith("ba7816bf8f01cfea")

session.createObject([(C.CKA_CLASS, C.CKO_DATA), (C.CKA_TOKEN, C.CK_FALSE), (C.CKA_LABEL, "note"),
                      (C.CKA_VALUE, list(b"data"))])
assert len(session.findObjects([(C.CKA_LABEL, "note")])) == 1
assert len(session.findObjects([(C.CKA_CLASS, C.CKO_PRIVATE_KEY), (C.CKA_LABEL, "python")])) == 1

p256 = list(bytes.fromhex("06082a8648ce3d030107"))
ecPublic, ecPrivate = session.generateKeyPair([(C.CKA_EC_PARAMS, p256)], [(C.CKA_LABEL, "ec")],
                                              PyKCS11.MechanismECGENERATEKEYPAIR)
point = bytes(session.getAttributeValue(ecPublic, [C.CKA_EC_POINT])[0])
secret = session.deriveKey(ecPrivate, [(C.CKA_CLASS, C.CKO_SECRET_KEY), (C.CKA_KEY_TYPE, C.CKK_GENERIC_SECRET)],
                           PyKCS11.ECDH1_DERIVE_Mechanism(point))
assert len(session.getAttributeValue(secret, [C.CKA_VALUE])[0]) == 32

session.destroyObject(private)
session.destroyObject(public)
try:
    session.login("1234")
    raise AssertionError("a second login is refused")
except PyKCS11.PyKCS11Error as error:
    assert error.value == C.CKR_USER_ALREADY_LOGGED_IN
session.logout()
session.closeSession()
