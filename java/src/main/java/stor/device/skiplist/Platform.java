package stor.device.skiplist;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Locale;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Stream;

/**
 * What a native library depends on: the system, the processor and the C library of this process.
 *
 * @param name what the folder of the library for it is called, as {@code linux-x86_64}
 * @param libcFile where the C library lies, empty if that cannot be told
 */
record Platform(String name, String libcFile) {
    private static final Path MAPPED_FILES = Path.of("/proc/self/maps");
    private static final Pattern MUSL = Pattern.compile("/ld-musl-[^/]*$");
    private static final Pattern GLIBC = Pattern.compile("/libc(-[0-9.]+)?\\.so[^/]*$");
    private static final String UNKNOWN_VERSION = "of unknown version";
    /** What glibc says of itself in its own file. */
    private static final Pattern GLIBC_VERSION =
            Pattern.compile("GNU C Library [^\0\n]* release version ([0-9.]*[0-9])");

    /** Finds out where this process runs. */
    static Platform current() {
        String system = System.getProperty("os.name");
        String processor = System.getProperty("os.arch");
        String libc = findLibc();
        return new Platform(name(system, processor, isMusl(libc) ? "-musl" : ""), libc);
    }

    /** Names the C library, with its version if that can be told. */
    String libc() {
        if (libcFile.isEmpty()) {
            return "an unknown C library";
        }
        return isMusl(libcFile) ? "musl" : "glibc " + glibcVersion();
    }

    /**
     * Names a platform.
     *
     * @param system as in {@code os.name}
     * @param processor as in {@code os.arch}
     * @param variant what sets it apart from others of the same system and processor
     */
    static String name(String system, String processor, String variant) {
        String lower = processor.toLowerCase(Locale.ROOT);
        String known = switch (lower) {
            case "amd64", "x86_64", "x86-64" -> "x86_64";
            case "aarch64", "arm64" -> "aarch64";
            default -> lower.replaceAll("[^a-z0-9_]", "");
        };
        return system.toLowerCase(Locale.ROOT).replaceAll("[^a-z0-9]", "") + "-" + known + variant;
    }

    private static boolean isMusl(String libcFile) {
        return MUSL.matcher(libcFile).find();
    }

    private static String findLibc() {
        // The names of files are bytes, in no encoding that could be relied on.
        try (Stream<String> mapped = Files.lines(MAPPED_FILES, StandardCharsets.ISO_8859_1)) {
            return mapped.filter(line -> MUSL.matcher(line).find() || GLIBC.matcher(line).find())
                    .map(line -> line.substring(line.indexOf('/'))).findFirst().orElse("");
        } catch (IOException | UncheckedIOException | SecurityException e) {
            return "";
        }
    }

    private String glibcVersion() {
        try {
            Matcher version = GLIBC_VERSION.matcher(
                    Files.readString(Path.of(libcFile), StandardCharsets.ISO_8859_1));
            return version.find() ? version.group(1) : UNKNOWN_VERSION;
        } catch (IOException | InvalidPathException | SecurityException e) {
            return UNKNOWN_VERSION;
        }
    }
}
