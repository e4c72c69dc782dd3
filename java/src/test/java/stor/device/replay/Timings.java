package stor.device.replay;

import org.HdrHistogram.Histogram;

/** Collects how long single native calls take, in nanoseconds. */
public final class Timings {
    private static final int SIGNIFICANT_DIGITS = 3;

    private final Histogram inserts = new Histogram(SIGNIFICANT_DIGITS);
    private final Histogram queries = new Histogram(SIGNIFICANT_DIGITS);

    /** Makes an empty collection. */
    public Timings() {
    }

    /**
     * Reads the times of buffered inserts.
     *
     * @return the times of {@code insertWithBuff}
     */
    public Histogram inserts() {
        return inserts;
    }

    /**
     * Reads the times of queries.
     *
     * @return the times of {@code getNodes}
     */
    public Histogram queries() {
        return queries;
    }
}
