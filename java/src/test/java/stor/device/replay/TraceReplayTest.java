package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.google.gson.JsonObject;
import com.google.gson.JsonParser;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.CompletableFuture;
import java.util.stream.Stream;
import java.util.zip.GZIPOutputStream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** The program as a user meets it: command lines, what they print, and what is left in a folder. */
class TraceReplayTest {
    private final ByteArrayOutputStream printed = new ByteArrayOutputStream();
    @TempDir
    private Path folder;

    @BeforeEach
    void makeFiles() throws IOException {
        write("ok", "# one\n\n1 W 0 4096\r\n  2 R 0 512 \n3 D 512 512\n");
        write("disks", "1,a,0,Write,100,5000,1\n2,a,1,Write,0,1,1\n99,a,0,Read,0,9000,1\n");
        write("empty", "");
        write("text", "Dear all,\nplease find attached\n");
        write("odd", "1 W 0 512\nx\n2 R 0 512\n");
        write("head.csv", "time,host,disk,kind,offset,length,response\n");
        write("later", "1 W 0 512\n2000001 R 0 512\n");
        write("bad", "9 W 0 512\nx\n1 W 512 512\n5 R 0 1024\n");
        Files.write(folder.resolve("cut.gz"), Arrays.copyOf(gzip("1 W 0 512\n".repeat(9000)), 70));
        Files.write(folder.resolve("packed"), new byte[] {0x28, (byte) 0xB5, 0x2F, (byte) 0xFD, 4});
        Files.createDirectory(folder.resolve("folder"));
        Files.createSymbolicLink(folder.resolve("link"), folder.resolve("ok"));
    }

    /** A word that begins with @ names a file in the folder. */
    @ParameterizedTest
    @CsvSource(delimiter = '|', quoteCharacter = '"', value = {
        "--speed 1 @ok              | --speed: unknown option",
        "-x @ok                     | -x: unknown option",
        "--seed                     | --seed: '' (expected: a value)",
        "--skip-bad=no @ok          | --skip-bad: 'no' (expected: no value)",
        "--repeat 0 @ok             | --repeat: '0' (expected: a number from 1 to 2147483647)",
        "--segment-size 9G @ok      | --segment-size: '9G' (expected: a number",
        "--sector-size=1k @ok       | sector size: 1024 (expected: 512 or 4096)",
        "--segment-size 512 @ok     | segment size: 512 (expected: >= 520)",
        "--verify all @ok           | --verify: 'all' (expected: full, sample)",
        "--format csv @ok           | --format: 'csv' (expected: plain, msr",
        "--from soon @ok            | --from: 'soon' (expected: seconds",
        "--from 2m --to 2 @ok       | --from: 120.0 s (expected: less than --to, 2.0 s)",
        "@ok @later                 | later': another trace (expected: one;",
        "--requests 5               | no trace given",
        "--repeat 2 -               | --repeat: 2 (expected: 1 for -, which can be read once only)",
        "@missing                   | missing (No such file or directory)",
        "@folder                    | folder: is a folder (expected: a trace)",
        "--folder @missing @ok      | missing: no such folder",
        "@empty                     | empty: no request in it",
        "@head.csv                  | head.csv: no request in it",
        "@packed                    | compressed with zstd (expected: plain or gzip; zstd -dc FILE",
        "--device b.0 @disks        | no request for device 'b.0' (expected: a.0, a.1)",
        "--from 3 @later            | no request in the window; the trace lasts 2.0 seconds",
        "@text                      | text:2: 'please find attached' (expected: a line of one of",
        "--skip-bad @text           | none of its 1 lines makes sense",
        "--report @ok @later        | ok: exists and was not written by this program",
        "--report @ok @ok           | ok: exists and was not written by this program",
        "--json @later @ok          | later: exists and was not written by this program",
        "--report @link @ok         | link: exists and is no regular file",
        "--report @folder @ok       | folder: exists and is no regular file",
        "--report /dev/null @ok     | /dev/null: exists and is no regular file",
        "--report @no/r.html @ok    | no is no folder",
        "--report @r --json @r @ok  | --json:",
        "--compare @ok @ok          | ok: was not written by --json",
        "--compare @missing @ok     | missing: no such file",
    })
    void whatCannotBeUsedIsNamedBeforeAnyWork(String line, String words) throws IOException {
        Map<String, String> before = contents();
        assertEquals(2, run(line), printed());
        assertTrue(printed().contains(words), printed());
        assertTrue(printed().lines().count() <= 2, printed());
        assertEquals(before, contents());
    }

    /** The first line is read before anything is made; these are found in the middle of the work. */
    @ParameterizedTest
    @CsvSource(delimiter = '|', quoteCharacter = '"', value = {
        "@odd                       | 2   | odd:2: 'x' (expected: <microseconds> <R|W|D>",
        "@cut.gz                    | 2   | the compressed data end too early",
        "--memory-limit 1 @ok       | 2   | --memory-limit gives the maps more",
        "--skip-bad @bad            | 0   | lines skipped                      1"
            + "                        & load       3 requests: 66.7 % writes"
            + "                        & every one of them right",
        "--requests 1k --buffer-size 4k --device a.0 --sector-size 4K @disks"
            + "                   | 0   | working set                        12,288",
        "--from 0.5 --verify sample @later"
            + "                   | 0   | estimated from one page in 16",
        "-h                         | 0   | usage: ./run [options] [trace]",
    })
    void whatWasDoneIsReported(String line, int status, String words) throws IOException {
        Map<String, String> before = contents();
        assertEquals(status, run(line), printed());
        for (String part : words.split(" +& ")) {
            assertTrue(printed().contains(part), printed());
        }
        Map<String, String> after = contents();
        String html = after.remove("report.html");
        assertEquals(before, after);
        if (html != null) {
            assertFalse(html.contains("href=") || html.contains("src="), "needs another file");
        }
    }

    @Test
    void peaksAreThoseOfEveryMoment() throws IOException {
        StringBuilder trace = new StringBuilder();
        for (int i = 0; i < 5000; i++) {
            trace.append(i).append(" W ").append(i * 7919L % 5000 * 8192).append(" 512\n");
        }
        // All of it goes while nobody looks.
        trace.append("5000 D 0 ").append(5000L * 8192).append('\n');
        write("scattered", trace.toString());
        JsonObject needs = needs("--flush-every 5000 --snapshot-every 0 @scattered");
        assertEquals(5000L * (136 + 104), needs.get("peakNativeBytes").getAsLong());
        assertEquals(10000, needs.get("peakRanges").getAsLong());
        assertEquals(5000L * 512, needs.get("peakBufferBytes").getAsLong());
        assertEquals(5000L * 520, needs.get("peakFileBytes").getAsLong());
        assertEquals(0, needs.get("liveBytes").getAsLong());
        assertEquals(0, run("--compare @figures @figures"), printed());
        assertTrue(printed().matches("(?s).*  peakRanges +10,000 +10,000  =\n.*"), printed());
    }

    /** More than the buffers on the way: nothing may be lost where a pipe is looked into. */
    @ParameterizedTest
    @ValueSource(booleans = {false, true})
    void aPipeReplaysAsAFileDoes(boolean isCompressed) throws Exception {
        String text = "1 W 0 512\n2 R 0 512\n".repeat(5000);
        byte[] half = isCompressed ? gzip(text) : text.getBytes(StandardCharsets.US_ASCII);
        Path pipe = folder.resolve("pipe");
        assertEquals(0, new ProcessBuilder("mkfifo", pipe.toString()).start().waitFor());
        CompletableFuture<Void> writer = CompletableFuture.runAsync(() -> {
            try (OutputStream out = Files.newOutputStream(pipe)) {
                // Two parts, the second of which is not there yet when the first one ends.
                out.write(half);
                out.flush();
                Thread.sleep(200);
                out.write(half);
            } catch (IOException | InterruptedException e) {
                throw new IllegalStateException(e);
            }
        });
        assertEquals(0, run("@pipe"), printed());
        writer.join();
        assertTrue(printed().contains("load       20,000 requests"), printed());
    }

    /** Stops at its Nth look, for every N that a run comes to, at growing distances. */
    @Test
    void aStopInEveryPhaseLeavesAReportAndNothingElse() throws IOException {
        StringBuilder trace = new StringBuilder();
        for (int i = 0; i < 600; i++) {
            trace.append(i).append(" W ").append(i * 331 % 600 * 4096).append(" 4096\n");
        }
        write("trace", trace.toString());
        Map<String, String> before = contents();
        int status = 130;
        int stops = 0;
        for (int looks = 2; status == 130; looks = looks * 5 / 4 + 1) {
            status = run("--snapshot-every 100 --flush-every 50 --segment-size 64K @trace",
                    new StopAfter(looks));
            Map<String, String> after = contents();
            String report = after.remove("report.html");
            assertEquals(before, after);
            Files.delete(folder.resolve("report.html"));
            if (status == 130) {
                stops++;
                assertTrue(report.contains("Stopped on request after "), report);
            }
        }
        assertEquals(0, status, printed());
        assertTrue(stops > 15, "stops: " + stops);
    }

    @Test
    void progressFitsAnyTerminal() {
        String text = " 34% replay 40k requests, 8k/s, 10 s left";
        for (int width = 0; width < 130; width++) {
            String line = Progress.line(0.34, text, width);
            assertTrue(line.length() <= width, line);
            assertEquals(width >= text.length(), line.endsWith(text), line);
        }
        assertEquals(76, Progress.line(0.34, text, 100).length() + 2, "a full bar of 30");
    }

    private static final class StopAfter extends StopSignal {
        private int looks;

        StopAfter(int looks) {
            this.looks = looks;
        }

        @Override
        synchronized void check() {
            looks--;
            if (looks <= 0) {
                request();
            }
            super.check();
        }
    }

    private JsonObject needs(String line) throws IOException {
        assertEquals(0, run("--foreground --json @figures " + line), printed());
        return JsonParser.parseString(Files.readString(folder.resolve("figures")))
                .getAsJsonObject().getAsJsonObject("needs");
    }

    private int run(String line) {
        return run(line, new StopSignal());
    }

    private int run(String line, StopSignal stop) {
        String defaults = line.contains("--report") ? "" : "--report @report.html ";
        String folders = line.contains("--folder") ? "" : "--folder @folder ";
        String[] args = (defaults + folders + line).replace("@", folder + "/").split(" ");
        printed.reset();
        PrintStream out = new PrintStream(printed, true, StandardCharsets.UTF_8);
        try (stop) {
            return TraceReplay.run(args, out, out, stop);
        }
    }

    private String printed() {
        return printed.toString(StandardCharsets.UTF_8);
    }

    private void write(String name, String text) throws IOException {
        Files.writeString(folder.resolve(name), text);
    }

    private static byte[] gzip(String text) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        try (OutputStream gzip = new GZIPOutputStream(bytes)) {
            gzip.write(text.getBytes(StandardCharsets.US_ASCII));
        }
        return bytes.toByteArray();
    }

    /** Gives what is in the folder, and in those in it. */
    private Map<String, String> contents() throws IOException {
        Map<String, String> contents = new TreeMap<>();
        try (Stream<Path> files = Files.walk(folder)) {
            for (Path file : files.toList()) {
                contents.put(folder.relativize(file).toString(), Files.isRegularFile(file)
                        ? Files.readString(file, StandardCharsets.ISO_8859_1) : "");
            }
        }
        return contents;
    }
}
