package stor.device.skiplist;

import java.io.PrintStream;
import java.util.concurrent.TimeUnit;
import stor.device.skiplist.Verification.Profile;

/**
 * Tells a user whether the library works on their machine: does random operations for some seconds,
 * or a number of them, and compares whole maps with a plain model after each.
 *
 * <pre>
 *   java -cp skiplist-native.jar:netty-buffer.jar:netty-common.jar \
 *       stor.device.skiplist.Verifier [--operations N | SECONDS] [SEED]
 * </pre>
 */
public final class Verifier {
    private static final String USAGE = """
            usage: Verifier [--operations N | SECONDS] [SEED]
              SECONDS         how long, 10 if not given
              --operations N  how many operations instead, at least
              SEED            the first seed, chosen by the clock if not given
            Prints PASS, or FAIL with the seed that shows the difference again at once.
            """;
    private static final long DEFAULT_SECONDS = 10;
    private static final int OPERATIONS_OF_A_SEED = 1000;

    private final long operations;
    private final long nanos;
    private final long firstSeed;

    private Verifier(long operations, long seconds, long firstSeed) {
        this.operations = operations;
        nanos = TimeUnit.SECONDS.toNanos(seconds);
        this.firstSeed = firstSeed;
    }

    /**
     * Prints {@code PASS}, or {@code FAIL} and the first difference with the seed that shows it
     * again. Exits with 0, 1, or 2 for arguments that cannot be used.
     *
     * @param args how many seconds, 10 if not given, or {@code --operations} and how many; the
     *     first seed, chosen by the clock if not given; or {@code --help}
     */
    public static void main(String[] args) {
        int status = run(args, System.out);
        if (status != 0) {
            System.exit(status);
        }
    }

    /** As {@link #main}; gives the exit status. */
    static int run(String[] args, PrintStream out) {
        if (args.length > 0 && args[0].equals("--help")) {
            out.print(USAGE);
            return 0;
        }
        try {
            return parse(args).verify(out);
        } catch (IllegalArgumentException e) {
            out.print(USAGE + e.getMessage() + "\n");
            return 2;
        }
    }

    private static Verifier parse(String[] args) {
        boolean counted = args.length > 0 && args[0].equals("--operations");
        int next = counted ? 1 : 0;
        long amount = args.length > next ? number(args[next], 0) : DEFAULT_SECONDS;
        if (counted && args.length == next || args.length > next + 2) {
            throw new IllegalArgumentException("arguments: " + args.length + " (expected: up to "
                    + "two, or three with --operations)");
        }
        long seed = args.length > next + 1
                ? number(args[next + 1], Long.MIN_VALUE) : System.nanoTime();
        return counted ? new Verifier(amount, 0, seed) : new Verifier(0, amount, seed);
    }

    private static long number(String text, long least) {
        try {
            long number = Long.parseLong(text);
            if (number >= least) {
                return number;
            }
        } catch (NumberFormatException e) {
            // Says the same as a number that is out of its bounds.
        }
        throw new IllegalArgumentException(
                "'" + text + "' (expected: a number from " + least + " to " + Long.MAX_VALUE + ")");
    }

    private int verify(PrintStream out) {
        long start = System.nanoTime();
        long done = 0;
        long seed = firstSeed;
        do {
            Profile profile = profileOf(seed);
            String difference = verify(new Verification(profile, seed));
            if (difference != null) {
                out.println("FAIL: seed " + seed + " (" + profile + "): " + difference);
                return 1;
            }
            done += OPERATIONS_OF_A_SEED;
            seed++;
        } while (done < operations || System.nanoTime() - start < nanos);
        out.println("PASS: " + done + " operations, seeds " + firstSeed + " to " + (seed - 1)
                + ", Java " + Runtime.version() + " on " + System.getProperty("os.arch"));
        return 0;
    }

    /** Gives what a seed's operations are like. */
    static Profile profileOf(long seed) {
        Profile[] profiles = Profile.values();
        return profiles[Math.floorMod(seed, profiles.length)];
    }

    /** Does the operations of one seed; gives the first difference, or null. */
    static String verify(Verification verification) {
        int done = 0;
        try (verification) {
            for (; done < OPERATIONS_OF_A_SEED; done++) {
                verification.step();
                verification.compare();
            }
        } catch (AssertionError | RuntimeException e) {
            return "operation " + done + ": " + verification.description() + ": " + e;
        }
        return null;
    }
}
