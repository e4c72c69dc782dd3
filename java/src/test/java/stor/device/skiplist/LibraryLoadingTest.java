package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.Test;

/** Loads the library in JVMs of their own. */
class LibraryLoadingTest {
    private static final String PROPERTY = "skiplist.native.library";
    private static final Path LIBRARY = Path.of(System.getProperty(PROPERTY));
    private static final String SEARCH_PATH = "-Djava.library.path=" + LIBRARY.getParent();

    /** Loads the library in the child JVM. */
    public static final class Loader {
        private Loader() {
        }

        /** Makes the class with the native methods load them. */
        public static void main(String[] args) {
            System.out.println("loaded: " + JniSkipListNative.tryTest());
        }
    }

    @Test
    void theLibraryIsFoundOnTheSearchPath() throws Exception {
        assertEquals("loaded: 0\n", output(0, SEARCH_PATH));
    }

    @Test
    void aGivenPathIsFinal() throws Exception {
        String missing = LIBRARY.resolveSibling("missing.so").toString();
        String output = output(1, SEARCH_PATH, "-D" + PROPERTY + "=" + missing);
        assertTrue(output.contains("load native library: " + missing + " (property " + PROPERTY
                + "): Can't load library"), output);
    }

    @Test
    void aLibraryThatIsNotFoundIsReportedWithThePropertyToSet() throws Exception {
        String output = output(1, "-Djava.library.path=/");
        assertTrue(output.contains("property " + PROPERTY + " not set"), output);
    }

    @Test
    void anotherLibraryIsRefused() throws Exception {
        Path other = Path.of(System.getProperty("java.home"), "lib", "libzip.so");
        String output = output(1, "-D" + PROPERTY + "=" + other);
        assertTrue(output.contains("load native library: " + other), output);
    }

    private static String output(int status, String... properties)
            throws IOException, InterruptedException {
        List<String> args = new ArrayList<>(List.of(properties));
        args.addAll(List.of("-cp", System.getProperty("java.class.path"), Loader.class.getName()));
        Process jvm = StrictJvm.start(args);
        String output =
                new String(jvm.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(status, jvm.waitFor(), output);
        return output;
    }
}
