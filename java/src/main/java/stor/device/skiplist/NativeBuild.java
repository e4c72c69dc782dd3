package stor.device.skiplist;

import java.io.ByteArrayInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.net.JarURLConnection;
import java.net.URL;
import java.net.URLConnection;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.Arrays;
import java.util.List;
import java.util.Properties;
import java.util.jar.JarEntry;
import java.util.zip.CRC32;

/**
 * What the jar says of its native libraries, which the build writes into it; and whether a library
 * is the one that was built.
 *
 * @param version the version of the jar, and of every library that it may be used with
 * @param platforms the platforms that the jar has a library for
 * @param glibc the oldest C library that those load on
 */
record NativeBuild(String version, String platforms, String glibc) {
    private static final String FILE = "native/build.properties";
    /** What stands before the version in the file of a library. */
    private static final String MARK = "skiplist-native version ";
    /** How a 64-bit ELF file of the byte order that all our platforms have begins. */
    private static final byte[] ELF = {0x7F, 'E', 'L', 'F', 2, 1};
    private static final int ELF_HEADER_BYTES = 64;
    private static final int ELF_SECTION_BYTES = 64;
    /** Where the header says where the table of sections begins, and how many it has. */
    private static final int ELF_SECTIONS_AT = 40;
    private static final int ELF_SECTION_COUNT_AT = 60;

    /**
     * Reads it.
     *
     * @throws UnsatisfiedLinkError if it is not beside the classes, as in a jar put together anew
     */
    static NativeBuild ofJar() {
        Properties properties = new Properties();
        try {
            properties.load(new ByteArrayInputStream(resource(FILE)));
            if (!properties.keySet().containsAll(List.of("version", "platforms", "glibc"))) {
                throw new IOException("not all is in it that should be");
            }
        } catch (IOException | RuntimeException e) {
            throw new UnsatisfiedLinkError("load native library: " + FILE
                    + " beside the classes of " + NativeBuild.class.getPackageName() + ": " + e);
        }
        return new NativeBuild(properties.getProperty("version"),
                properties.getProperty("platforms"), properties.getProperty("glibc"));
    }

    /**
     * Reads a file that lies beside the classes.
     *
     * @throws IOException if it is not there, cannot be read, or is not what was put into the jar
     */
    static byte[] resource(String name) throws IOException {
        URL place = NativeBuild.class.getResource(name);
        if (place == null) {
            throw new IOException("no such file in the jar");
        }
        URLConnection connection = place.openConnection();
        // Class loaders share what is kept open of a jar, and any of them may close it.
        connection.setUseCaches(false);
        byte[] contents;
        JarEntry entry;
        try (InputStream file = connection.getInputStream()) {
            entry = connection instanceof JarURLConnection jar ? jar.getJarEntry() : null;
            contents = file.readAllBytes();
        } catch (IOException e) {
            throw new IOException("cannot read it from the jar: " + e, e);
        }
        // What unpacks it does not compare the checksum.
        CRC32 sum = new CRC32();
        sum.update(contents);
        if (entry != null && entry.getCrc() >= 0 && entry.getCrc() != sum.getValue()) {
            throw new IOException("the jar is damaged: this file's checksum is "
                    + Long.toHexString(sum.getValue()) + " (expected: "
                    + Long.toHexString(entry.getCrc()) + ")");
        }
        return contents;
    }

    /**
     * Checks that a library is whole, and of the jar's version.
     *
     * @param library the contents of its file
     * @throws IOException if it is damaged, of another version, or of none
     */
    void check(byte[] library) throws IOException {
        requireWhole(library);
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

    /**
     * Checks that an ELF file has its end, and that nothing before has grown or shrunk: what a JVM
     * maps of a file that is cut ends it. Linkers write a table of sections last, its first entry
     * empty.
     */
    private static void requireWhole(byte[] library) throws IOException {
        if (library.length < ELF_HEADER_BYTES
                || !Arrays.equals(ELF, Arrays.copyOf(library, ELF.length))) {
            return;
        }
        ByteBuffer header = ByteBuffer.wrap(library).order(ByteOrder.LITTLE_ENDIAN);
        long sections = header.getLong(ELF_SECTIONS_AT);
        long end = sections + (long) ELF_SECTION_BYTES * header.getShort(ELF_SECTION_COUNT_AT);
        if (sections < ELF_HEADER_BYTES || end <= sections || end > library.length
                || header.slice((int) sections, ELF_SECTION_BYTES).mismatch(
                        ByteBuffer.allocate(ELF_SECTION_BYTES)) >= 0) {
            throw new IOException("the file is damaged: it has " + library.length
                    + " bytes, and no table of sections at " + sections + " to " + end);
        }
    }
}
