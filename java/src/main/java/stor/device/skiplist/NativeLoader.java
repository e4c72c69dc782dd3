package stor.device.skiplist;

import java.io.File;
import java.io.IOException;
import java.nio.file.AccessDeniedException;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Objects;
import java.util.stream.Stream;

/**
 * Finds and loads the native library: the file that a property names, and no other; otherwise the
 * one inside the jar, through a copy that is deleted as soon as it is loaded; otherwise whatever
 * {@code java.library.path} has. A library that is damaged, or of another version than the jar, is
 * not loaded.
 *
 * <p>A copy of its own is also what lets each class loader load the library: the JVM gives a file
 * to one class loader only. Each then has its own memory limit and statistics.
 */
final class NativeLoader {
    static final String LIBRARY_PROPERTY = "skiplist.native.library";
    static final String FOLDER_PROPERTY = "skiplist.native.tmpdir";

    private static final String FILE_NAME = "libskiplistjni.so";

    private static boolean loaded;

    private final NativeBuild build = NativeBuild.ofJar();
    private final Platform platform = Platform.current();
    private final List<String> report = new ArrayList<>();
    private final List<Throwable> failures = new ArrayList<>();

    private NativeLoader() {
    }

    /** A way to load the library. */
    private interface Attempt {
        void run() throws IOException;
    }

    /**
     * Loads the library, unless it is loaded. What failed for want of threads, files or stack may
     * succeed the next time; a class that failed to initialise would be lost for good.
     *
     * @throws UnsatisfiedLinkError if no place has it, with the reason of each
     */
    static synchronized void load() {
        if (loaded) {
            return;
        }
        NativeLoader loader = new NativeLoader();
        if (!loader.succeeds()) {
            throw loader.failure();
        }
        loaded = true;
    }

    private boolean succeeds() {
        String given = System.getProperty(LIBRARY_PROPERTY);
        if (given != null) {
            return succeeds(given + " (property " + LIBRARY_PROPERTY + ")",
                    () -> loadFile(Path.of(given)));
        }
        String resource = "native/" + platform.name() + "/" + FILE_NAME;
        String folder = System.getProperty(FOLDER_PROPERTY, System.getProperty("java.io.tmpdir"));
        String searched = System.getProperty("java.library.path");
        return succeeds(resource + " of the jar, copied to " + folder + " (property "
                        + FOLDER_PROPERTY + ")",
                        () -> loadPackaged(resource, Path.of(folder).toAbsolutePath()))
                || succeeds(FILE_NAME + " on java.library.path=" + searched,
                        () -> loadFound(searched));
    }

    private boolean succeeds(String place, Attempt attempt) {
        try {
            attempt.run();
            return true;
        } catch (IOException | UnsatisfiedLinkError | RuntimeException e) {
            report.add(place + ": " + reason(e) + advice(e, platform));
            failures.add(e);
            return false;
        }
    }

    private static String reason(Throwable failure) {
        // These say which file, and nothing else.
        if (failure instanceof NoSuchFileException) {
            return "no such file";
        }
        return failure instanceof AccessDeniedException ? "access denied" : failure.getMessage();
    }

    private void loadFile(Path file) throws IOException {
        if (!file.isAbsolute()) {
            throw new IOException("not an absolute path");
        }
        if (Files.exists(file) && !Files.isRegularFile(file)) {
            throw new IOException("not a regular file");
        }
        build.check(Files.readAllBytes(file));
        System.load(file.toString());
    }

    private void loadPackaged(String resource, Path folder) throws IOException {
        byte[] library = NativeBuild.resource(resource);
        build.check(library);
        Path copy = copy(library, folder);
        try {
            System.load(copy.toString());
        } finally {
            // The mapped file stays until the process ends; its name is not needed.
            Files.deleteIfExists(copy);
        }
    }

    private static Path copy(byte[] library, Path folder) throws IOException {
        Path copy;
        try {
            copy = Files.createTempFile(folder, "libskiplistjni-", ".so");
        } catch (IOException e) {
            throw new IOException("cannot create a file there: " + e, e);
        }
        try {
            return Files.write(copy, library);
        } catch (IOException e) {
            Files.deleteIfExists(copy);
            throw new IOException("cannot write a file there: " + e, e);
        }
    }

    private void loadFound(String searched) throws IOException {
        Path file = Stream.of(searched.split(File.pathSeparator))
                .map(folder -> Path.of(folder, FILE_NAME).toAbsolutePath())
                .filter(Files::isRegularFile).findFirst()
                .orElseThrow(() -> new NoSuchFileException(FILE_NAME));
        loadFile(file);
    }

    /** Says more than the JVM does about a failure, if there is more to say. */
    static String advice(Throwable failure, Platform platform) {
        String message = String.valueOf(failure.getMessage());
        if (failure instanceof IllegalCallerException) {
            return "; start Java with the option " + accessFlag(NativeLoader.class.getModule());
        }
        if (message.contains("failed to map segment")) {
            return "; is the folder mounted noexec? Name another with " + FOLDER_PROPERTY;
        }
        if (message.contains("already loaded in another classloader")) {
            return System.getProperty(LIBRARY_PROPERTY) == null ? ""
                    : "; leave " + LIBRARY_PROPERTY
                            + " unset, so that each class loader loads a copy of its own";
        }
        if (message.contains("GLIBC_")) {
            return "; this system's C library is older than the library needs";
        }
        return platform.name().endsWith("-musl")
                ? "; the library needs glibc, and this JVM runs on musl" : "";
    }

    /** Gives the option of a JVM that allows native code to a module, or to the class path. */
    static String accessFlag(Module module) {
        return "--enable-native-access="
                + Objects.requireNonNullElse(module.getName(), "ALL-UNNAMED");
    }

    private UnsatisfiedLinkError failure() {
        report.add("found: " + platform.name() + " with " + platform.libc() + ", Java "
                + Runtime.version() + "; the jar of version " + build.version()
                + " holds libraries for " + build.platforms() + ", with glibc " + build.glibc()
                + " or later");
        report.add("set the property " + LIBRARY_PROPERTY + " to the absolute path of "
                + FILE_NAME + ", of version " + build.version());
        UnsatisfiedLinkError error = new UnsatisfiedLinkError(
                "load native library: " + String.join("\n  ", report));
        failures.forEach(error::addSuppressed);
        return error;
    }
}
