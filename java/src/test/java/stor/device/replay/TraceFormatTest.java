package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The same requests in every format that is understood. */
class TraceFormatTest {
    private static final Path SAMPLES =
            Path.of(System.getProperty("skiplist.test.project"), "data", "formats");

    @ParameterizedTest
    @CsvSource({
        "msr.csv, msr, plain-no-discards.trace",
        "cloud.csv, cloud, plain-no-discards.trace",
        "cloud-sectors.csv, cloud-sectors, plain-no-discards.trace",
        "cloudphysics.csv.gz, cloudphysics, plain-no-discards.trace",
        "spc.txt, spc, plain-no-discards.trace",
        "blkparse.txt.gz, blkparse, plain.trace",
        "fio-2.log, fio, plain.trace",
        "fio-3.log, fio, plain.trace",
    })
    void eachSampleHoldsTheRequestsOfTheProjectsOwn(String sample, String format, String own)
            throws IOException {
        List<Request> expected = read(own, "plain");
        assertEquals(expected, read(sample, null));
        assertEquals(expected, read(sample, format));
    }

    @ParameterizedTest
    @CsvSource(delimiter = '|', quoteCharacter = '"', value = {
        "plain         | 1 X 0 512                     | kind: 'X' (expected: R, W or D)",
        "plain         | 1 R -1 512                    | offset: '-1' (expected: a number from 0",
        "plain         | 1 R 0 0                       | length: '0' (expected: a number from 1",
        "plain         | 1 R 0                         | (expected: <microseconds> <R|W|D>",
        "msr           | 1,a,0,Trim,0,512,9            | kind: 'Trim' (expected: Read or Write)",
        "msr           | 1,a,0,Read,0,512              | (expected: <time in 100 ns>,<host>",
        "cloud         | 3,X,0,512,1                   | kind: 'X' (expected: R or W)",
        "cloud-sectors | 1,0,8,2,1283                  | kind: '2' (expected: 0 or 1)",
        "cloudphysics  | 1,2.5,12,8,512                | op: '12' (expected: 28 or 88 to read",
        "spc           | 0,1,512,R,1.5x                | time: '5x0000' (expected",
        "blkparse      | 8,0 1 2 0.5 7 Q W 9 + x [a]   | length: 'x' (expected",
        "fio           | /dev/sdb read 0 512           | (expected: fio version 2 iolog",
    })
    void whatIsWrongWithALineIsSaid(String format, String line, String words) {
        String reason = assertThrows(IllegalArgumentException.class,
                () -> TraceFormat.named(format, null, 'Q').parse(line)).getMessage();
        assertTrue(reason.contains(words), reason);
    }

    private static List<Request> read(String sample, String format) throws IOException {
        List<Request> requests = new ArrayList<>();
        TraceReader.Selection all =
                new TraceReader.Selection(format, 'Q', null, 0, Long.MAX_VALUE, false);
        try (TraceReader trace = new TraceReader(SAMPLES.resolve(sample), all)) {
            for (Request next = trace.next(); next != null; next = trace.next()) {
                requests.add(next);
            }
        }
        return requests;
    }
}
