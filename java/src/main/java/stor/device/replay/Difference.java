package stor.device.replay;

/** Reports that the native side, or the store, gave another answer than expected. */
public final class Difference extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /**
     * Makes a report.
     *
     * @param subject what was compared
     * @param found what the native side said, or the store
     * @param expected what was expected
     */
    public Difference(String subject, Object found, Object expected) {
        super(subject + ": found: " + found + ", expected: " + expected);
    }

    /**
     * Compares two answers.
     *
     * @param subject what is compared
     * @param found what the native side said, or the store
     * @param expected what is expected
     */
    static void check(String subject, Object found, Object expected) {
        if (!found.equals(expected)) {
            throw new Difference(subject, found, expected);
        }
    }
}
