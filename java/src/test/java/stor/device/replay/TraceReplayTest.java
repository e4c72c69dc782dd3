package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Stream;
import java.util.zip.GZIPOutputStream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.replay.TraceReader.Kind;
import stor.device.replay.TraceReader.Request;

/** The formats, and the program's answers to what it cannot use. */
class TraceReplayTest {
    private final ByteArrayOutputStream out = new ByteArrayOutputStream();
    private final ByteArrayOutputStream err = new ByteArrayOutputStream();
    @TempDir
    private Path folder;

    @Test
    void badArgumentsAreNamed() {
        assertUnusable("no trace given");
        assertUnusable("--speed: unknown option", "--speed", "1", "x.gz");
        assertUnusable("--repeat: '0' (expected: a number from 1", "--repeat", "0", "x.gz");
        assertUnusable("--seed: '' (expected", "--seed");
        assertUnusable("--buffer-size: '9G' (expected", "--buffer-size", "9G", "x");
        assertUnusable("sector size: 1000 (expected: 512 or 4096)", "--sector-size", "1000", "x");
        assertUnusable("segment size: 512 (expected: >= 520)", "--segment-size", "512", "x");
    }

    @Test
    void badLinesAreNamed() throws IOException {
        assertUnusable("missing.gz", folder.resolve("missing.gz").toString());
        assertUnusable(":3: 'x R 0' (expected: <microseconds> <R|W|D>",
                gzip("# header\n1 W 0 512\nx R 0\n"));
        assertUnusable(":1: kind: 'X' (expected: R, W or D)", plain("1 X 0 512\n"));
        assertUnusable(":1: offset: '-1' (expected: a number from 0", plain("1 R -1 512\n"));
        assertUnusable(":1: length: '0' (expected: a number from 1", plain("1 R 0 0\n"));
        assertUnusable(":2: offset: 'zero' (expected: a number",
                plain("1,host,0,Read,0,512,9\n1,host,0,Read,zero,512,9\n"));
        assertUnusable(":2: '1,host,0,Read,0,512' (expected: <timestamp in 100 ns>,<host>",
                plain("1,host,0,Write,0,512,9\n1,host,0,Read,0,512\n"));
        assertUnusable(":1: kind: 'Trim' (expected: Read or Write)",
                plain("1,host,0,Trim,0,512,9\n"));
        assertUnusable(":1: '?[31m' (expected:", plain("\033[31m\n"));
        assertEquals(List.of("trace"), left());
    }

    @Test
    void formatsAndCompressionAreToldApart() throws IOException {
        String own = "# header\n1 W 512 1024\n2 R 0 512\n3 D 512 512\n";
        List<Request> requests = List.of(new Request(Kind.WRITE, 512, 1024),
                new Request(Kind.READ, 0, 512), new Request(Kind.DISCARD, 512, 512));
        assertEquals(requests, read(plain(own)));
        assertEquals(requests, read(gzip(own)));
        assertEquals(List.of(), read(plain("")));

        List<Request> csv = read(gzip("128166372003061629,web,1,Write,1000,700,1331\r\n"
                + "128166372003061630,web,2,Read,0,512,7\n"
                + "128166372003061631,web,1,Read,1000,1,7\n"));
        assertEquals(new Request(Kind.WRITE, 1000, 700), csv.get(0));
        assertEquals(new Request(Kind.READ, 1000, 1), csv.get(2));
        // Another disk is another part of the device.
        assertTrue(csv.get(1).offset() >= 1L << 42, csv.get(1).toString());
    }

    @Test
    void aSmallTraceIsReplayedAndNothingIsLeftButTheReport() throws IOException {
        String trace = plain("1,a,0,Write,100,5000,1\n2,a,1,Write,0,1,1\n3,a,0,Read,0,9000,1\n");
        Path report = folder.resolve("report.html");
        assertEquals(0, run("--report", report.toString(), "--folder", folder.toString(),
                "--sector-size", "4096", trace), err.toString(StandardCharsets.UTF_8));
        assertEquals(List.of("report.html", "trace"), left());
        String html = Files.readString(report);
        assertTrue(html.contains("every one of them right"), html.substring(0, 2000));
        assertFalse(html.contains("href=") || html.contains("src="), "refers to another file");
    }

    @Test
    void anUnwritablePlaceIsNamed() throws IOException {
        String trace = plain("1 W 0 512\n");
        assertUnusable("nowhere", "--folder", folder.resolve("nowhere").toString(), trace);
        assertUnusable("nowhere", "--folder", folder.toString(),
                "--report", folder.resolve("nowhere/report.html").toString(), trace);
        assertEquals(List.of("trace"), left());
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

    private static List<Request> read(String trace) throws IOException {
        List<Request> requests = new ArrayList<>();
        try (TraceReader reader = new TraceReader(Path.of(trace))) {
            for (Request next = reader.next(); next != null; next = reader.next()) {
                requests.add(next);
            }
        }
        return requests;
    }

    private String plain(String text) throws IOException {
        return Files.writeString(folder.resolve("trace"), text).toString();
    }

    private String gzip(String text) throws IOException {
        Path file = folder.resolve("trace");
        try (OutputStream gzip = new GZIPOutputStream(Files.newOutputStream(file))) {
            gzip.write(text.getBytes(StandardCharsets.US_ASCII));
        }
        return file.toString();
    }

    private List<String> left() throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            return files.map(file -> file.getFileName().toString()).sorted().toList();
        }
    }
}
