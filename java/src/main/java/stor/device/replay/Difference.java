package stor.device.replay;

/** Reports that the native side gave another answer than the model. */
public final class Difference extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /**
     * Makes a report.
     *
     * @param subject what was compared
     * @param nativeSide what the native side said
     * @param expected what was expected
     */
    public Difference(String subject, Object nativeSide, Object expected) {
        super(subject + ": native: " + nativeSide + ", expected: " + expected);
    }

    /**
     * Compares two answers.
     *
     * @param subject what is compared
     * @param nativeSide what the native side said
     * @param expected what is expected
     */
    static void check(String subject, Object nativeSide, Object expected) {
        if (!nativeSide.equals(expected)) {
            throw new Difference(subject, nativeSide, expected);
        }
    }
}
