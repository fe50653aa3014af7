import java.io.FileInputStream;
import java.io.InputStream;
import java.net.Socket;
import java.security.KeyStore;
import java.security.Principal;
import java.security.PrivateKey;
import java.security.Provider;
import java.security.Security;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import javax.net.ssl.KeyManager;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManagerFactory;
import javax.net.ssl.X509ExtendedKeyManager;

/**
 * Shows the page of a server on the loopback address that asks for a certificate. The arguments are the provider's
 * configuration, a file with the server's CA, the token's entry, and the port.
 */
public class JavaTlsClient {
    /** One entry of the token, whatever the server asks for. */
    static class OneEntry extends X509ExtendedKeyManager {
        final KeyStore store;
        final String alias;

        OneEntry(KeyStore store, String alias) {
            this.store = store;
            this.alias = alias;
        }

        public String chooseClientAlias(String[] types, Principal[] issuers, Socket socket) {
            return alias;
        }

        public String[] getClientAliases(String type, Principal[] issuers) {
            return new String[] {alias};
        }

        public X509Certificate[] getCertificateChain(String name) {
            try {
                return new X509Certificate[] {(X509Certificate) store.getCertificate(name)};
            } catch (Exception failure) {
                throw new IllegalStateException(failure);
            }
        }

        public PrivateKey getPrivateKey(String name) {
            try {
                return (PrivateKey) store.getKey(name, null);
            } catch (Exception failure) {
                throw new IllegalStateException(failure);
            }
        }

        public String chooseServerAlias(String type, Principal[] issuers, Socket socket) {
            return null;
        }

        public String[] getServerAliases(String type, Principal[] issuers) {
            return null;
        }
    }

    static TrustManagerFactory trusting(String file) throws Exception {
        KeyStore trusted = KeyStore.getInstance(KeyStore.getDefaultType());
        trusted.load(null, null);
        try (InputStream in = new FileInputStream(file)) {
            trusted.setCertificateEntry("ca", CertificateFactory.getInstance("X.509").generateCertificate(in));
        }
        TrustManagerFactory factory = TrustManagerFactory.getInstance(TrustManagerFactory.getDefaultAlgorithm());
        factory.init(trusted);
        return factory;
    }

    public static void main(String[] arguments) throws Exception {
        Provider token = Security.getProvider("SunPKCS11").configure(arguments[0]);
        Security.addProvider(token);
        KeyStore store = KeyStore.getInstance("PKCS11", token);
        store.load(null, "1234".toCharArray());
        SSLContext context = SSLContext.getInstance("TLS");
        context.init(new KeyManager[] {new OneEntry(store, arguments[2])}, trusting(arguments[1]).getTrustManagers(), null);
        try (SSLSocket socket = (SSLSocket) context.getSocketFactory().createSocket("localhost", Integer.parseInt(arguments[3]))) {
            socket.getOutputStream().write("GET / HTTP/1.0\r\n\r\n".getBytes());
            socket.getInputStream().transferTo(System.out);
        }
    }
}
