import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.PublicKey;
import java.security.Security;
import java.security.Signature;
import java.security.spec.ECGenParameterSpec;
import java.util.Arrays;
import javax.crypto.Cipher;
import javax.crypto.KeyAgreement;

/**
 * What Java programs do with a token. The arguments are the provider's configuration, one of the things of `main`, and the
 * token's entry that it is done with.
 */
public class JavaClient {
    static Provider token;

    static void require(boolean condition, String what) {
        if (!condition)
            throw new IllegalStateException(what);
    }

    static final String[] RSA = {"SHA1withRSA", "SHA256withRSA", "SHA512withRSA"};
    static final String[] EC = {"SHA256withECDSA", "SHA512withECDSA", "NONEwithECDSA"};

    /** Signs on the token; the provider verifies. */
    static void sign(String[] algorithms, PrivateKey privateKey, PublicKey publicKey, Provider provider) throws Exception {
        byte[] data = new byte[32];
        for (String algorithm : algorithms) {
            Signature signing = Signature.getInstance(algorithm, token);
            signing.initSign(privateKey);
            signing.update(data);
            byte[] signature = signing.sign();
            Signature verifying = Signature.getInstance(algorithm, provider);
            verifying.initVerify(publicKey);
            verifying.update(data);
            require(verifying.verify(signature), algorithm);
        }
    }

    static KeyPair generate(Provider provider) throws Exception {
        KeyPairGenerator generator = KeyPairGenerator.getInstance("EC", provider);
        generator.initialize(new ECGenParameterSpec("secp256r1"));
        return generator.generateKeyPair();
    }

    static byte[] agree(Provider provider, KeyPair own, KeyPair peer) throws Exception {
        KeyAgreement agreement = KeyAgreement.getInstance("ECDH", provider);
        agreement.init(own.getPrivate());
        agreement.doPhase(peer.getPublic(), true);
        return agreement.generateSecret();
    }

    /** The provider encrypts; the token decrypts. */
    static void encrypt(PrivateKey privateKey, PublicKey publicKey, Provider provider) throws Exception {
        Cipher encrypting = Cipher.getInstance("RSA/ECB/PKCS1Padding", provider);
        encrypting.init(Cipher.ENCRYPT_MODE, publicKey);
        byte[] secret = encrypting.doFinal("secret".getBytes());
        Cipher decrypting = Cipher.getInstance("RSA/ECB/PKCS1Padding", token);
        decrypting.init(Cipher.DECRYPT_MODE, privateKey);
        require(new String(decrypting.doFinal(secret)).equals("secret"), "cipher");
    }

    static void agree(KeyPair here) throws Exception {
        Provider own = Security.getProvider("SunEC");
        KeyPair there = generate(own);
        require(Arrays.equals(agree(token, here, there), agree(own, there, here)), "ECDH");
    }

    public static void main(String[] arguments) throws Exception {
        token = Security.getProvider("SunPKCS11").configure(arguments[0]);
        Security.addProvider(token);
        KeyStore store = KeyStore.getInstance("PKCS11", token);
        store.load(null, "1234".toCharArray());
        String entry = arguments[2];
        require(store.isKeyEntry(entry), "no entry " + entry);
        PrivateKey privateKey = (PrivateKey) store.getKey(entry, null);
        PublicKey publicKey = store.getCertificate(entry).getPublicKey();
        switch (arguments[1]) {
        case "sign-rsa":
            sign(RSA, privateKey, publicKey, Security.getProvider("SunRsaSign"));
            break;
        case "verify-rsa":
            sign(RSA, privateKey, publicKey, token);
            break;
        case "sign-ec":
            sign(EC, privateKey, publicKey, Security.getProvider("SunEC"));
            break;
        case "verify-ec":
            sign(EC, privateKey, publicKey, token);
            break;
        case "decrypt":
            encrypt(privateKey, publicKey, Security.getProvider("SunJCE"));
            break;
        case "encrypt":
            encrypt(privateKey, publicKey, token);
            break;
        case "agree":
            agree(new KeyPair(publicKey, privateKey));
            break;
        case "generate":
            agree(generate(token));
            break;
        default:
            require(false, "there is no " + arguments[1]);
        }
    }
}
