package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.replay.Request.Kind;

/** The recorded trace under harder conditions. Its path is in the property skiplist.test.trace. */
class RecordedTraceCases {
    private static final Path TRACE = Path.of(System.getProperty("skiplist.test.trace"));
    private static final int REQUESTS = 25000;

    @TempDir
    private Path folder;

    @Test
    void aHundredRefusedInsertsAndKilledFlushesLoseNothing() {
        String summary = replay(TRACE, "--memory-limit", "32K", "--fail-flush-every", "4");
        assertTrue(count(summary, "inserts refused +([0-9,]+) ") >= 100, summary);
        assertTrue(count(summary, "([0-9,]+) more were killed") >= 10, summary);
    }

    @Test
    void thePublicFormatReplaysUnchanged() throws IOException {
        Path csv = folder.resolve("trace.csv");
        int requests = writeCsv(csv);
        String summary = replay(csv, "--sector-size", "4096");
        assertEquals(requests, count(summary, "([0-9,]+) requests:"), summary);
    }

    private String replay(Path trace, String... options) {
        List<String> args = new ArrayList<>(List.of(options));
        args.addAll(List.of("--requests", String.valueOf(REQUESTS),
                "--report", folder.resolve("report.html").toString(),
                "--folder", folder.toString(), trace.toString()));
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        PrintStream printed = new PrintStream(out, true, StandardCharsets.UTF_8);
        int status = TraceReplay.run(args.toArray(String[]::new), printed, printed);
        String summary = out.toString(StandardCharsets.UTF_8);
        assertEquals(0, status, summary);
        return summary;
    }

    /** Writes the reads and writes of the recorded trace, at odd offsets, on two disks. */
    private static int writeCsv(Path csv) throws IOException {
        int requests = 0;
        try (TraceReader trace = new TraceReader(TRACE);
                Writer lines = Files.newBufferedWriter(csv)) {
            for (Request next = trace.next(); requests < REQUESTS; next = trace.next()) {
                if (next.kind() != Kind.DISCARD) {
                    requests++;
                    lines.write(String.format("%d,host,%d,%s,%d,%d,%d%n",
                            128166372003061629L + requests, requests % 7 / 6,
                            next.kind() == Kind.READ ? "Read" : "Write", next.offset() + 17,
                            next.length() - 8, 1331));
                }
            }
        }
        return requests;
    }

    private static long count(String text, String pattern) {
        Matcher found = Pattern.compile(pattern).matcher(text);
        assertTrue(found.find(), text);
        return Long.parseLong(found.group(1).replace(",", ""));
    }
}
