package stor.device.replay;

import java.nio.file.Path;
import stor.device.store.StoreSettings;

/** What the command line of {@link TraceReplay} says. */
final class ReplayOptions {
    static final String USAGE = """
            usage: TraceReplay [options] <trace>

            Replays a block trace through a log-structured block store whose only index are native
            range maps, checks every byte that is read, and writes a report. The trace is plain or
            gzip-compressed text, of lines "<microseconds> <R|W|D> <offset> <length>" or
            "<100 ns>,<host>,<disk>,<Read|Write>,<offset>,<length>,<response time>". Of several
            traces the last counts.

              --report FILE         the report                           (default report.html)
              --sector-size N       bytes of a sector, 512 or 4096       (default 512)
              --buffer-size N       bytes buffered at most               (default 4M)
              --memory-limit N      native memory for the range maps     (default 1G)
              --segment-size N      bytes of a segment file              (default 4M)
              --repeat N            how often to go through the trace    (default 1)
              --requests N          stop after as many requests
              --seed N              the bytes written                    (default 1)
              --flush-every N       requests from one flush to the next  (default 1000)
              --compact-every N     the same of compactions              (default 5000)
              --snapshot-every N    the same of snapshots                (default 20000)
              --fail-flush-every N  end every Nth flush by an exception in its middle
              --folder DIR          where the folder for the segment files is made
              --help                print this text

            Numbers may end in K, M or G. Exit status: 0 if every byte was right, 1 at the first
            difference, 2 for bad arguments, an unreadable trace, a folder that cannot be written
            or too small a memory limit, 130 after Ctrl-C.
            """;

    private long seed = 1;
    private int flushEvery = 1000;
    private int compactEvery = 5000;
    private int snapshotEvery = 20000;
    private int failFlushEvery;
    private int sectorSize = 512;
    private int bufferBytes = 4 << 20;
    private long memoryLimit = 1L << 30;
    private int segmentBytes = 4 << 20;
    private int repeat = 1;
    private long requests = Long.MAX_VALUE;
    private boolean help;
    private Path report = Path.of("report.html");
    private Path folder = Path.of(System.getProperty("java.io.tmpdir"));
    private Path trace;

    /** Reads the arguments; an {@link IllegalArgumentException} says which one is wrong. */
    static ReplayOptions parse(String... args) {
        ReplayOptions options = new ReplayOptions();
        for (int i = 0; i < args.length; i++) {
            String arg = args[i];
            if (arg.equals("--help")) {
                options.help = true;
                return options;
            } else if (arg.startsWith("--")) {
                i++;
                options.set(arg, i < args.length ? args[i] : "");
            } else {
                options.trace = Path.of(arg);
            }
        }
        if (options.trace == null) {
            throw new IllegalArgumentException("no trace given");
        }
        options.store();
        return options;
    }

    StoreSettings store() {
        return new StoreSettings(sectorSize, segmentBytes, bufferBytes, memoryLimit, 12);
    }

    long seed() {
        return seed;
    }

    int flushEvery() {
        return flushEvery;
    }

    int compactEvery() {
        return compactEvery;
    }

    int snapshotEvery() {
        return snapshotEvery;
    }

    /** Gives which flushes fail, or 0 for none. */
    int failFlushEvery() {
        return failFlushEvery;
    }

    int repeat() {
        return repeat;
    }

    long requests() {
        return requests;
    }

    boolean help() {
        return help;
    }

    Path report() {
        return report;
    }

    Path folder() {
        return folder;
    }

    Path trace() {
        return trace;
    }

    private void set(String name, String value) {
        switch (name) {
            case "--seed" -> seed = number(name, value, Long.MIN_VALUE, Long.MAX_VALUE);
            case "--flush-every" -> flushEvery = positive(name, value);
            case "--compact-every" -> compactEvery = positive(name, value);
            case "--snapshot-every" -> snapshotEvery = positive(name, value);
            case "--fail-flush-every" -> failFlushEvery = positive(name, value);
            case "--sector-size" -> sectorSize = positive(name, value);
            case "--buffer-size" -> bufferBytes = positive(name, value);
            case "--memory-limit" -> memoryLimit = number(name, value, 1, Long.MAX_VALUE);
            case "--segment-size" -> segmentBytes = positive(name, value);
            case "--repeat" -> repeat = positive(name, value);
            case "--requests" -> requests = number(name, value, 1, Long.MAX_VALUE);
            case "--report" -> report = path(name, value);
            case "--folder" -> folder = path(name, value);
            default -> throw new IllegalArgumentException(name + ": unknown option");
        }
    }

    private static Path path(String name, String value) {
        if (value.isEmpty()) {
            throw new IllegalArgumentException(name + ": '' (expected: a path)");
        }
        return Path.of(value);
    }

    private static int positive(String name, String value) {
        return (int) number(name, value, 1, Integer.MAX_VALUE);
    }

    private static long number(String name, String value, long min, long max) {
        try {
            int unit = value.isEmpty() ? -1 : "KMG".indexOf(value.charAt(value.length() - 1));
            String digits = unit < 0 ? value : value.substring(0, value.length() - 1);
            long number = Math.multiplyExact(Long.parseLong(digits), 1L << 10 * (unit + 1));
            if (number >= min && number <= max) {
                return number;
            }
        } catch (ArithmeticException | NumberFormatException e) {
            // Reported below, in the words used for a number out of bounds.
        }
        throw new IllegalArgumentException(
                name + ": '" + value + "' (expected: a number from " + min + " to " + max + ")");
    }
}
