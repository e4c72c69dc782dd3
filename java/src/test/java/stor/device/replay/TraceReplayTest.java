package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.zip.GZIPOutputStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The program's answers to what it cannot use. The recorded trace itself is a test of its own. */
class TraceReplayTest {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();
    @TempDir
    private Path folder;

    @Test
    void badArgumentsAreNamed() {
        assertUnusable("no trace given");
        assertUnusable("--speed: unknown option", "--speed", "1", "x.gz");
        assertUnusable("--height: '0' (expected: a number from 1", "--height", "0", "x.gz");
        assertUnusable("--seed: '' (expected", "--seed");
        assertUnusable("b.gz: a second trace", "a.gz", "b.gz");
    }

    @Test
    void unreadableTracesAreNamed() throws IOException {
        assertUnusable("missing.gz", folder.resolve("missing.gz").toString());
        Path text = Files.writeString(folder.resolve("text.gz"), "1 R 0 512\n");
        assertUnusable("text.gz", text.toString());
        assertUnusable(":3: 'x R 0'", trace("# header\n1 W 0 512\nx R 0\n"));
        assertUnusable(":1: kind: X", trace("1 X 0 512\n"));
        assertUnusable(":1: '1 R -1 512' (expected: offset >= 0", trace("1 R -1 512\n"));
        assertUnusable(":1: '1 R zero 512' (expected: decimal", trace("1 R zero 512\n"));
    }

    @Test
    void helpIsNotAnError() {
        assertEquals(0, run("--help"));
        assertTrue(out.toString(StandardCharsets.UTF_8).startsWith("usage:"));
    }

    private void assertUnusable(String reason, String... args) {
        err.reset();
        assertEquals(2, run(args));
        String text = err.toString(StandardCharsets.UTF_8);
        assertTrue(text.contains(reason), text);
    }

    private int run(String... args) {
        return TraceReplay.run(args, new PrintStream(out, true, StandardCharsets.UTF_8),
                new PrintStream(err, true, StandardCharsets.UTF_8));
    }

    private String trace(String text) throws IOException {
        Path file = folder.resolve("trace.gz");
        try (OutputStream gzip = new GZIPOutputStream(Files.newOutputStream(file))) {
            gzip.write(text.getBytes(StandardCharsets.US_ASCII));
        }
        return file.toString();
    }
}
