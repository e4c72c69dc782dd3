package stor.device.skiplist;

import java.util.concurrent.TimeUnit;

/**
 * Tells a user whether the library works on their machine: does random operations for some seconds,
 * and compares the whole map with a plain model after each.
 *
 * <pre>
 *   java -cp skiplist-native.jar:netty-buffer.jar:netty-common.jar \
 *       stor.device.skiplist.Verifier [seconds [seed]]
 * </pre>
 */
public final class Verifier {
    private static final int DEFAULT_SECONDS = 10;
    private static final int OPERATIONS_OF_A_SEED = 1000;

    private Verifier() {
    }

    /**
     * Prints {@code PASS}, or {@code FAIL} and the first difference with the seed that shows it
     * again. Exits with 0, 1, or 2 for arguments that are no numbers.
     *
     * @param args how many seconds, 10 if not given; the first seed, chosen by the clock if not
     *     given
     */
    public static void main(String[] args) {
        long seconds;
        long seed;
        try {
            seconds = args.length > 0 ? Long.parseLong(args[0]) : DEFAULT_SECONDS;
            seed = args.length > 1 ? Long.parseLong(args[1]) : System.nanoTime();
        } catch (NumberFormatException e) {
            System.err.println("usage: Verifier [seconds [seed]]: " + e.getMessage());
            System.exit(2);
            return;
        }
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        long operations = 0;
        do {
            String difference = verify(new Verification(seed));
            if (difference != null) {
                System.out.println("FAIL: seed " + seed + ": " + difference);
                System.exit(1);
            }
            operations += OPERATIONS_OF_A_SEED;
            seed++;
        } while (System.nanoTime() < end);
        System.out.println("PASS: " + operations + " operations, Java "
                + Runtime.version() + " on " + System.getProperty("os.arch"));
    }

    /** Does the operations of one seed; gives the first difference, or null. */
    static String verify(Verification verification) {
        try (verification) {
            for (int i = 0; i < OPERATIONS_OF_A_SEED; i++) {
                try {
                    verification.step();
                    verification.compare();
                } catch (AssertionError | RuntimeException e) {
                    return "operation " + i + ": " + verification.description() + ": " + e;
                }
            }
        }
        return null;
    }
}
