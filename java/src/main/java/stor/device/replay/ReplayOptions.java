package stor.device.replay;

import java.io.IOException;
import java.io.InputStream;
import java.io.UncheckedIOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.InvalidPathException;
import java.nio.file.Path;
import java.util.Iterator;
import java.util.List;
import java.util.Locale;
import stor.device.store.StoreSettings;

/** What the command line of {@link TraceReplay} says. */
public final class ReplayOptions {
    /** Names the trace to take if none is given. */
    private static final String DEFAULT_TRACE = "skiplist.replay.trace";
    private static final int DEFAULT_TRACE_REPEAT = 3;
    private static final int NEVER = Integer.MAX_VALUE;

    private long seed = 1;
    private int flushEvery = 1000;
    private int compactEvery = 5000;
    private int snapshotEvery = 20000;
    private int failFlushEvery;
    private int sectorSize = 512;
    private long bufferBytes = 4 << 20;
    private long memoryLimit = 1L << 30;
    private int segmentBytes = 4 << 20;
    private int repeat;
    private long requests = Long.MAX_VALUE;
    private boolean help;
    private boolean sampled;
    private boolean foreground;
    private Path report = Path.of("report.html");
    private Path json;
    private Path folder = Path.of(System.getProperty("java.io.tmpdir"));
    private Path trace;
    private String format;
    private char action = 'Q';
    private String device;
    private long from;
    private long to = Long.MAX_VALUE;
    private boolean skipBad;
    private List<Path> compared = List.of();

    private ReplayOptions() {
    }

    /**
     * Reads the arguments.
     *
     * @param args the arguments of {@link TraceReplay}
     * @return what they say
     * @throws IllegalArgumentException if one of them is wrong
     */
    public static ReplayOptions parse(String... args) {
        ReplayOptions options = new ReplayOptions();
        for (Iterator<String> rest = List.of(args).iterator(); rest.hasNext() && !options.help;) {
            options.take(rest.next(), rest);
        }
        if (!options.help && options.compared.isEmpty()) {
            options.complete();
        }
        return options;
    }

    /** Gives the text that explains the options. */
    static String usage() {
        try (InputStream text = ReplayOptions.class.getResourceAsStream("usage.txt")) {
            return new String(text.readAllBytes(), StandardCharsets.UTF_8);
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    StoreSettings store() {
        return new StoreSettings(sectorSize, segmentBytes, bufferBytes, memoryLimit, 12);
    }

    TraceReader.Selection selection() {
        return new TraceReader.Selection(format, action, device, from, to, skipBad);
    }

    long seed() {
        return seed;
    }

    int flushEvery() {
        return flushEvery;
    }

    /** Gives the requests between compactions, more than there can be for none. */
    int compactEvery() {
        return compactEvery;
    }

    /** Tells whether the store compacts at all. */
    boolean compacts() {
        return compactEvery != NEVER;
    }

    /** Gives the requests between snapshots, more than there can be for none. */
    int snapshotEvery() {
        return snapshotEvery;
    }

    boolean takesSnapshots() {
        return snapshotEvery != NEVER;
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

    /** Tells whether a sample is checked instead of every byte. */
    boolean sampled() {
        return sampled;
    }

    boolean foreground() {
        return foreground;
    }

    Path report() {
        return report;
    }

    /** Gives the file for the figures, or null for none. */
    Path json() {
        return json;
    }

    Path folder() {
        return folder;
    }

    Path trace() {
        return trace;
    }

    /** Gives the two files to compare, or none. */
    List<Path> compared() {
        return compared;
    }

    private void take(String arg, Iterator<String> rest) {
        int equals = arg.indexOf('=');
        if (arg.equals("-h") || arg.equals("--help")) {
            help = true;
        } else if (arg.startsWith("--") && equals > 0) {
            String name = arg.substring(0, equals);
            Iterator<String> value = List.of(arg.substring(equals + 1)).iterator();
            set(name, value);
            if (value.hasNext()) {
                throw new IllegalArgumentException(
                        name + ": '" + TraceFormat.shown(value.next()) + "' (expected: no value)");
            }
        } else if (arg.startsWith("-") && !arg.equals("-")) {
            set(arg, rest);
        } else if (trace != null) {
            throw new IllegalArgumentException(
                    "'" + arg + "': another trace (expected: one; '" + trace + "' came before)");
        } else {
            trace = path("trace", arg);
        }
    }

    private void set(String name, Iterator<String> rest) {
        switch (name) {
            case "--skip-bad" -> skipBad = true;
            case "--foreground" -> foreground = true;
            default -> set(name, value(name, rest), rest);
        }
    }

    private void set(String name, String value, Iterator<String> rest) {
        switch (name) {
            case "--seed" -> seed = number(name, value, Long.MIN_VALUE, Long.MAX_VALUE);
            case "--flush-every" -> flushEvery = positive(name, value);
            case "--compact-every" -> compactEvery = positiveOrNever(name, value);
            case "--snapshot-every" -> snapshotEvery = positiveOrNever(name, value);
            case "--fail-flush-every" -> failFlushEvery = positive(name, value);
            case "--sector-size" -> sectorSize = positive(name, value);
            case "--buffer-size" -> bufferBytes = number(name, value, 1, Long.MAX_VALUE);
            case "--memory-limit" -> memoryLimit = number(name, value, 1, Long.MAX_VALUE);
            case "--segment-size" -> segmentBytes = positive(name, value);
            case "--repeat" -> repeat = positive(name, value);
            case "--requests" -> requests = number(name, value, 1, Long.MAX_VALUE);
            case "--report" -> report = path(name, value);
            case "--json" -> json = path(name, value);
            case "--folder" -> folder = path(name, value);
            case "--format" -> format = oneOf(name, value, TraceFormat.names());
            case "--action" -> action = oneOf(name, value, List.of("Q", "D", "C")).charAt(0);
            case "--device" -> device = value;
            case "--from" -> from = micros(name, value);
            case "--to" -> to = micros(name, value);
            case "--verify" -> sampled =
                    oneOf(name, value, List.of("full", "sample")).equals("sample");
            case "--compare" -> compared =
                    List.of(path(name, value), path(name, value(name, rest)));
            default -> throw new IllegalArgumentException(name + ": unknown option");
        }
    }

    /** Fills in what was not said, and checks what belongs together. */
    private void complete() {
        boolean isDefault = trace == null;
        if (isDefault) {
            String path = System.getProperty(DEFAULT_TRACE);
            if (path == null) {
                throw new IllegalArgumentException("no trace given");
            }
            trace = Path.of(path);
        }
        if (repeat == 0) {
            repeat = isDefault ? DEFAULT_TRACE_REPEAT : 1;
        }
        if (from >= to) {
            throw new IllegalArgumentException("--from: " + from / 1e6
                    + " s (expected: less than --to, " + to / 1e6 + " s)");
        }
        store();
    }

    private static String value(String name, Iterator<String> rest) {
        if (!rest.hasNext()) {
            throw new IllegalArgumentException(name + ": '' (expected: a value)");
        }
        return rest.next();
    }

    private static Path path(String name, String value) {
        try {
            if (!value.isEmpty()) {
                return Path.of(value);
            }
        } catch (InvalidPathException e) {
            // Reported below, too.
        }
        throw new IllegalArgumentException(
                name + ": '" + TraceFormat.shown(value) + "' (expected: a path)");
    }

    private static String oneOf(String name, String value, List<String> expected) {
        if (!expected.contains(value)) {
            throw new IllegalArgumentException(name + ": '" + TraceFormat.shown(value)
                    + "' (expected: " + String.join(", ", expected) + ")");
        }
        return value;
    }

    private static int positive(String name, String value) {
        return (int) number(name, value, 1, Integer.MAX_VALUE);
    }

    private static int positiveOrNever(String name, String value) {
        int number = (int) number(name, value, 0, Integer.MAX_VALUE);
        return number == 0 ? NEVER : number;
    }

    private static long number(String name, String value, long min, long max) {
        try {
            int unit = value.isEmpty() ? -1
                    : "KMGT".indexOf(value.toUpperCase(Locale.ROOT).charAt(value.length() - 1));
            String digits = unit < 0 ? value : value.substring(0, value.length() - 1);
            long number = Math.multiplyExact(Long.parseLong(digits), 1L << 10 * (unit + 1));
            if (number >= min && number <= max) {
                return number;
            }
        } catch (ArithmeticException | NumberFormatException e) {
            // Reported below, in the words used for a number out of bounds.
        }
        throw new IllegalArgumentException(name + ": '" + TraceFormat.shown(value)
                + "' (expected: a number from " + min + " to " + max + ")");
    }

    private static long micros(String name, String value) {
        try {
            int unit = value.isEmpty() ? -1 : "smhd".indexOf(value.charAt(value.length() - 1));
            String digits = unit < 0 ? value : value.substring(0, value.length() - 1);
            double micros = Double.parseDouble(digits) * new double[] {1, 60, 3600, 86400}[
                    Math.max(0, unit)] * 1e6;
            if (micros >= 0 && micros < Long.MAX_VALUE) {
                return (long) micros;
            }
        } catch (NumberFormatException e) {
            // Reported below.
        }
        throw new IllegalArgumentException(name + ": '" + TraceFormat.shown(value)
                + "' (expected: seconds, or a number with s, m, h or d)");
    }
}
