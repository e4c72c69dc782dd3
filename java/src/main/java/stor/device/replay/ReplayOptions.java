package stor.device.replay;

import java.nio.file.Path;

/** What the command line of {@link TraceReplay} says. */
final class ReplayOptions {
    static final String USAGE = """
            usage: TraceReplay [options] <trace.gz>

            Replays a recorded block trace through native range maps and compares every answer
            with a model.

              --seed N            what is moved, and the bytes written       (default 1)
              --flush-every N     requests from one write-out to the next    (default 1000)
              --move-every N      requests from one move to the next         (default 1500)
              --snapshot-every N  requests from one snapshot to the next     (default 10000)
              --sector-size N     logical bytes of a sector                  (default 512)
              --height N          levels of a map                            (default 12)
              --repeat N          how often to go through the trace          (default 1)
              --help              print this text

            Exit status: 0 if all answers agree, 1 at the first difference, 2 for bad arguments
            or an unreadable trace.
            """;

    private long seed = 1;
    private int flushEvery = 1000;
    private int moveEvery = 1500;
    private int snapshotEvery = 10000;
    private int sectorSize = 512;
    private int height = 12;
    private int repeat = 1;
    private boolean help;
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
            } else if (options.trace == null) {
                options.trace = Path.of(arg);
            } else {
                throw new IllegalArgumentException(arg + ": a second trace");
            }
        }
        if (options.trace == null) {
            throw new IllegalArgumentException("no trace given");
        }
        return options;
    }

    long seed() {
        return seed;
    }

    int flushEvery() {
        return flushEvery;
    }

    int moveEvery() {
        return moveEvery;
    }

    int snapshotEvery() {
        return snapshotEvery;
    }

    int sectorSize() {
        return sectorSize;
    }

    int height() {
        return height;
    }

    int repeat() {
        return repeat;
    }

    boolean help() {
        return help;
    }

    Path trace() {
        return trace;
    }

    private void set(String name, String value) {
        switch (name) {
            case "--seed" -> seed = number(name, value, Long.MIN_VALUE, Long.MAX_VALUE);
            case "--flush-every" -> flushEvery = positive(name, value);
            case "--move-every" -> moveEvery = positive(name, value);
            case "--snapshot-every" -> snapshotEvery = positive(name, value);
            case "--sector-size" -> sectorSize = positive(name, value);
            case "--height" -> height = positive(name, value);
            case "--repeat" -> repeat = positive(name, value);
            default -> throw new IllegalArgumentException(name + ": unknown option");
        }
    }

    private static int positive(String name, String value) {
        return (int) number(name, value, 1, Integer.MAX_VALUE);
    }

    private static long number(String name, String value, long min, long max) {
        try {
            long number = Long.parseLong(value);
            if (number >= min && number <= max) {
                return number;
            }
        } catch (NumberFormatException e) {
            // Reported below, in the words used for a number out of bounds.
        }
        throw new IllegalArgumentException(
                name + ": '" + value + "' (expected: a number from " + min + " to " + max + ")");
    }
}
