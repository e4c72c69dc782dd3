package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.io.IOException;
import java.net.MalformedURLException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.jar.Attributes;
import java.util.jar.JarFile;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Loads the library in JVMs of their own. */
class LibraryLoadingTest {
    private static final String PROPERTY = "skiplist.native.library";
    private static final String FOLDER_PROPERTY = "skiplist.native.tmpdir";
    private static final Path LIBRARY = Path.of(System.getProperty("skiplist.test.library"));

    @TempDir
    private Path folder;

    /** Loads the library in the child JVM. */
    public static final class Loader {
        private Loader() {
        }

        /** Makes the class with the native methods load them, in as many class loaders as asked. */
        public static void main(String[] args) throws ReflectiveOperationException, IOException {
            System.out.println("loaded: " + JniSkipListNative.tryTest());
            if (args.length > 0) {
                loadAgain();
            }
        }

        private static void loadAgain() throws ReflectiveOperationException, IOException {
            String[] paths = System.getProperty("java.class.path").split(File.pathSeparator);
            URL[] urls = Stream.concat(Arrays.stream(paths), manifestPaths())
                    .map(Loader::url).toArray(URL[]::new);
            try (URLClassLoader loader =
                    new URLClassLoader(urls, ClassLoader.getPlatformClassLoader())) {
                Class<?> other = loader.loadClass(JniSkipListNative.class.getName());
                System.out.println("again: " + (other != JniSkipListNative.class) + " "
                        + other.getMethod("tryTest").invoke(null));
            }
        }

        /** Gives where the classes come from that only a manifest names. */
        private static Stream<String> manifestPaths() {
            return Stream.of(JniSkipListNative.class.getProtectionDomain().getCodeSource()
                    .getLocation().getPath());
        }

        private static URL url(String path) {
            try {
                return new File(path).toURI().toURL();
            } catch (MalformedURLException e) {
                throw new IllegalArgumentException(path, e);
            }
        }
    }

    @Test
    void theJarBringsTheLibraryAndLeavesNoFile() throws Exception {
        String output = output(0, List.of(tmpdir(folder)));
        assertEquals("loaded: 0\n", output);
        try (Stream<Path> left = Files.list(folder)) {
            assertEquals(List.of(), left.toList());
        }
    }

    @Test
    void theJarTellsItsVersionAndItsModule() throws Exception {
        String jar = JniSkipListNative.class.getProtectionDomain().getCodeSource().getLocation()
                .getPath();
        try (JarFile file = new JarFile(jar)) {
            Attributes manifest = file.getManifest().getMainAttributes();
            assertEquals(System.getProperty("skiplist.test.version"),
                    manifest.getValue(Attributes.Name.IMPLEMENTATION_VERSION));
            assertEquals(
                    "stor.device.skiplist", manifest.getValue("Automatic-Module-Name"));
        }
    }

    @Test
    void theSearchPathIsTriedIfTheFolderCannotBeWritten() throws Exception {
        String output = output(0, List.of(
                tmpdir(folder.resolve("missing")), "-Djava.library.path=" + LIBRARY.getParent()));
        assertEquals("loaded: 0\n", output);
    }

    @Test
    void aLibraryThatIsNotFoundIsReportedWithEveryPlaceAndThePropertyToSet() throws Exception {
        Path missing = folder.resolve("missing");
        String output = output(1, List.of(tmpdir(missing), "-Djava.library.path=/"));
        assertTrue(output.contains("load native library: native/linux-x86_64/libskiplistjni.so of "
                + "the jar, copied to " + missing + " (property " + FOLDER_PROPERTY
                + "): cannot create a file there: java.nio.file.NoSuchFileException"), output);
        assertTrue(output.contains("\n  skiplistjni on java.library.path=/: no skiplistjni in "
                + "java.library.path: /\n  set the property " + PROPERTY
                + " to the absolute path of libskiplistjni.so\n"), output);
        assertTrue(output.contains("Suppressed: java.io.IOException"), output);
    }

    @Test
    void aGivenPathIsFinal() throws Exception {
        Path missing = LIBRARY.resolveSibling("missing.so");
        String output = output(1, List.of("-D" + PROPERTY + "=" + missing,
                "-Djava.library.path=" + LIBRARY.getParent()));
        assertTrue(output.contains("load native library: " + missing + " (property " + PROPERTY
                + "): Can't load library"), output);
    }

    @Test
    void anotherLibraryIsRefused() throws Exception {
        Path other = Path.of(System.getProperty("java.home"), "lib", "libzip.so");
        String output = output(1, List.of("-D" + PROPERTY + "=" + other));
        assertTrue(output.contains("load native library: " + other), output);
    }

    @Test
    void aSecondClassLoaderLoadsACopyOfItsOwn() throws Exception {
        String output = output(0, List.of(), "again");
        assertTrue(output.endsWith("again: true 0\n"), output);
    }

    @Test
    void aSecondClassLoaderIsToldThatAFileServesOneOnly() throws Exception {
        String output = output(1, List.of("-D" + PROPERTY + "=" + LIBRARY), "again");
        assertTrue(output.contains("already loaded in another classloader; leave " + PROPERTY
                + " unset, so that each class loader loads a copy of its own"), output);
    }

    @ParameterizedTest
    @CsvSource({
        "Linux, amd64, glibc, native/linux-x86_64/libskiplistjni.so",
        "Linux, x86_64, musl, native/linux-x86_64-musl/libskiplistjni.so",
        "Linux, aarch64, glibc, native/linux-aarch64/libskiplistjni.so",
        "Mac OS X, arm64, glibc, native/macosx-aarch64/libskiplistjni.so",
        "Odd/../OS, ../x, glibc, native/oddos-x/libskiplistjni.so"})
    void aFileIsNamedAfterItsPlatform(String os, String arch, String libc, String expected) {
        assertEquals(expected, NativeLoader.resourceName(os, arch, libc));
    }

    @ParameterizedTest
    @CsvSource({
        "failed to map segment from shared object, glibc, noexec",
        "version `GLIBC_2.36' not found, glibc, older",
        "Error relocating, musl, musl"})
    void aReasonIsExplained(String reason, String libc, String explanation) {
        assertTrue(NativeLoader.advice(reason, libc).contains(explanation));
    }

    private static String tmpdir(Path path) {
        return "-D" + FOLDER_PROPERTY + "=" + path;
    }

    private static String output(int status, List<String> properties, String... args)
            throws IOException, InterruptedException {
        List<String> command = new ArrayList<>(properties);
        command.addAll(
                List.of("-cp", System.getProperty("java.class.path"), Loader.class.getName()));
        command.addAll(List.of(args));
        Process jvm = StrictJvm.start(command);
        String output =
                new String(jvm.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(status, jvm.waitFor(), output);
        return output;
    }
}
