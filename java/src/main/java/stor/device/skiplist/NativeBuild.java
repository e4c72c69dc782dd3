package stor.device.skiplist;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.util.Properties;

/**
 * What the jar says of its native libraries, which the build writes into it.
 *
 * @param version the version of the jar, and of every library that it may be used with
 * @param platforms the platforms that the jar has a library for
 * @param glibc the oldest C library that those load on
 */
record NativeBuild(String version, String platforms, String glibc) {
    private static final String FILE = "native/build.properties";
    /** What stands before the version in the file of a library. */
    private static final String MARK = "skiplist-native version ";

    /**
     * Reads it.
     *
     * @throws UnsatisfiedLinkError if it is not beside the classes, as in a jar put together anew
     */
    static NativeBuild ofJar() {
        Properties properties = new Properties();
        try (InputStream file = NativeBuild.class.getResourceAsStream(FILE)) {
            if (file == null) {
                throw new IOException("no such file");
            }
            properties.load(file);
        } catch (IOException | IllegalArgumentException e) {
            throw new UnsatisfiedLinkError("load native library: " + FILE
                    + " beside the classes of " + NativeBuild.class.getPackageName() + ": " + e);
        }
        return new NativeBuild(properties.getProperty("version"),
                properties.getProperty("platforms"), properties.getProperty("glibc"));
    }

    /**
     * Checks that a library is of the jar's version.
     *
     * @param library the contents of its file
     * @throws IOException if it is of another version, or of none
     */
    void check(byte[] library) throws IOException {
        String contents = new String(library, StandardCharsets.ISO_8859_1);
        int mark = contents.indexOf(MARK);
        if (mark < 0) {
            throw new IOException("this file is no skiplist-native library, or of a version before"
                    + " 0.1.0; the jar is of version " + version);
        }
        int start = mark + MARK.length();
        int end = contents.indexOf('\0', start);
        String found = contents.substring(start, end < 0 ? contents.length() : end);
        if (!found.equals(version)) {
            throw new IOException("the library is of version " + found + ", the jar of version "
                    + version + "; use both of one version");
        }
    }
}
