package stor.device.skiplist;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardCopyOption;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.stream.Stream;

/**
 * Finds and loads the native library: the file that a property names, and no other; otherwise the
 * one inside the jar, through a copy that is deleted as soon as it is loaded; otherwise whatever
 * {@code java.library.path} has.
 *
 * <p>A copy of its own is also what lets each class loader load the library: the JVM gives a file
 * to one class loader only. Each then has its own memory limit and statistics.
 */
final class NativeLoader {
    static final String LIBRARY_PROPERTY = "skiplist.native.library";
    static final String FOLDER_PROPERTY = "skiplist.native.tmpdir";

    private static final String LIBRARY_NAME = "skiplistjni";
    private static final String FILE_NAME = "lib" + LIBRARY_NAME + ".so";
    private static final Path MAPPED_FILES = Path.of("/proc/self/maps");

    private NativeLoader() {
    }

    /** A way to load the library. */
    private interface Attempt {
        void run() throws IOException;
    }

    /**
     * Loads the library.
     *
     * @throws UnsatisfiedLinkError if no place has it, with the reason of each
     */
    static void load() {
        List<Throwable> failures = new ArrayList<>();
        List<String> report = new ArrayList<>();
        String given = System.getProperty(LIBRARY_PROPERTY);
        if (given != null) {
            String place = given + " (property " + LIBRARY_PROPERTY + ")";
            if (!succeeds(place, () -> System.load(given), report, failures)) {
                throw failure(report, failures);
            }
            return;
        }
        String resource = resourceName(
                System.getProperty("os.name"), System.getProperty("os.arch"), libc());
        Path folder = Path.of(System.getProperty(
                FOLDER_PROPERTY, System.getProperty("java.io.tmpdir"))).toAbsolutePath();
        String packaged = resource + " of the jar, copied to " + folder
                + " (property " + FOLDER_PROPERTY + ")";
        String searched = LIBRARY_NAME + " on java.library.path="
                + System.getProperty("java.library.path");
        if (!succeeds(packaged, () -> loadPackaged(resource, folder), report, failures)
                && !succeeds(searched, () -> System.loadLibrary(LIBRARY_NAME), report, failures)) {
            report.add("set the property " + LIBRARY_PROPERTY + " to the absolute path of "
                    + FILE_NAME);
            throw failure(report, failures);
        }
    }

    /**
     * Names the library's file inside the jar, relative to this package.
     *
     * @param os the system, as in {@code os.name}
     * @param arch the processor, as in {@code os.arch}
     * @param libc the C library, {@code glibc} or {@code musl}
     */
    static String resourceName(String os, String arch, String libc) {
        String system = os.toLowerCase(Locale.ROOT).replaceAll("[^a-z0-9]", "");
        String processor = switch (arch.toLowerCase(Locale.ROOT)) {
            case "amd64", "x86_64", "x86-64" -> "x86_64";
            case "aarch64", "arm64" -> "aarch64";
            default -> arch.toLowerCase(Locale.ROOT).replaceAll("[^a-z0-9_]", "");
        };
        String variant = libc.equals("musl") ? "-musl" : "";
        return "native/" + system + "-" + processor + variant + "/" + FILE_NAME;
    }

    /** Says more than the JVM does about a failure, if there is more to say. */
    static String advice(String message, String libc) {
        if (message.contains("failed to map segment")) {
            return "; is the folder mounted noexec? Name another with " + FOLDER_PROPERTY;
        }
        if (message.contains("already loaded in another classloader")) {
            return "; leave " + LIBRARY_PROPERTY
                    + " unset, so that each class loader loads a copy of its own";
        }
        if (message.contains("GLIBC_")) {
            return "; this system's C library is older than the library needs";
        }
        return libc.equals("musl") ? "; the library needs glibc, and this JVM runs on musl" : "";
    }

    private static boolean succeeds(
            String place, Attempt attempt, List<String> report, List<Throwable> failures) {
        try {
            attempt.run();
            // A file that loads but is another library shows here, not at some later call.
            JniSkipListNative.tryTest();
            return true;
        } catch (IOException | UnsatisfiedLinkError | SecurityException e) {
            report.add(place + ": " + e.getMessage() + advice(String.valueOf(e.getMessage()),
                    libc()));
            failures.add(e);
        } catch (IllegalCallerException e) {
            report.add(place + ": " + e.getMessage()
                    + "; start Java with --enable-native-access=ALL-UNNAMED");
            failures.add(e);
        }
        return false;
    }

    private static void loadPackaged(String resource, Path folder) throws IOException {
        try (InputStream library = NativeLoader.class.getResourceAsStream(resource)) {
            if (library == null) {
                throw new IOException("no such file in the jar (os.name="
                        + System.getProperty("os.name") + ", os.arch="
                        + System.getProperty("os.arch") + ", libc=" + libc() + ")");
            }
            Path copy = copy(library, folder);
            try {
                System.load(copy.toString());
            } finally {
                // The mapped file stays until the process ends; its name is not needed.
                Files.deleteIfExists(copy);
            }
        }
    }

    private static Path copy(InputStream library, Path folder) throws IOException {
        Path copy;
        try {
            copy = Files.createTempFile(folder, "lib" + LIBRARY_NAME + "-", ".so");
        } catch (IOException e) {
            throw new IOException("cannot create a file there: " + e, e);
        }
        try {
            Files.copy(library, copy, StandardCopyOption.REPLACE_EXISTING);
        } catch (IOException e) {
            Files.deleteIfExists(copy);
            throw new IOException("cannot write a file there: " + e, e);
        }
        return copy;
    }

    private static String libc() {
        try (Stream<String> mapped = Files.lines(MAPPED_FILES)) {
            return mapped.anyMatch(line -> line.contains("ld-musl")) ? "musl" : "glibc";
        } catch (IOException e) {
            return "glibc";
        }
    }

    private static UnsatisfiedLinkError failure(List<String> report, List<Throwable> failures) {
        UnsatisfiedLinkError error = new UnsatisfiedLinkError(
                "load native library: " + String.join("\n  ", report));
        failures.forEach(error::addSuppressed);
        return error;
    }
}
