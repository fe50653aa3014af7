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

/** What Java programs do with the entries "jrsa" and "jec" of the token; the argument is the provider's configuration. */
public class JavaClient {
    static Provider token;

    static void require(boolean condition, String what) {
        if (!condition)
            throw new IllegalStateException(what);
    }

    /** Signs on the token; the token and Java's own provider both verify. */
    static void sign(String algorithm, PrivateKey privateKey, PublicKey publicKey, String own) throws Exception {
        byte[] data = new byte[32];
        Signature signing = Signature.getInstance(algorithm, token);
        signing.initSign(privateKey);
        signing.update(data);
        byte[] signature = signing.sign();
        for (Provider provider : new Provider[] {token, Security.getProvider(own)}) {
            Signature verifying = Signature.getInstance(algorithm, provider);
            verifying.initVerify(publicKey);
            verifying.update(data);
            require(verifying.verify(signature), algorithm + " " + provider.getName());
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

    public static void main(String[] arguments) throws Exception {
        token = Security.getProvider("SunPKCS11").configure(arguments[0]);
        Security.addProvider(token);
        KeyStore store = KeyStore.getInstance("PKCS11", token);
        store.load(null, "1234".toCharArray());
        PrivateKey rsa = (PrivateKey) store.getKey("jrsa", null);
        PublicKey rsaPublic = store.getCertificate("jrsa").getPublicKey();
        PrivateKey ec = (PrivateKey) store.getKey("jec", null);
        PublicKey ecPublic = store.getCertificate("jec").getPublicKey();
        for (String algorithm : new String[] {"SHA1withRSA", "SHA256withRSA", "SHA512withRSA"})
            sign(algorithm, rsa, rsaPublic, "SunRsaSign");
        for (String algorithm : new String[] {"SHA256withECDSA", "SHA512withECDSA", "NONEwithECDSA"})
            sign(algorithm, ec, ecPublic, "SunEC");

        Cipher cipher = Cipher.getInstance("RSA/ECB/PKCS1Padding", token);
        cipher.init(Cipher.ENCRYPT_MODE, rsaPublic);
        byte[] secret = cipher.doFinal("secret".getBytes());
        cipher.init(Cipher.DECRYPT_MODE, rsa);
        require(new String(cipher.doFinal(secret)).equals("secret"), "cipher");

        Provider own = Security.getProvider("SunEC");
        KeyPair here = generate(token);
        KeyPair there = generate(own);
        require(Arrays.equals(agree(token, here, there), agree(own, there, here)), "ECDH");
    }
}
