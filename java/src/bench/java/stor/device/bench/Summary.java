package stor.device.bench;

import java.util.Arrays;

/** What is said of values measured in several rounds. */
record Summary(double median, double min, double max, int rounds) {
    /** Sums up at least one value. */
    public static Summary of(double[] values) {
        double[] sorted = values.clone();
        Arrays.sort(sorted);
        return new Summary(sorted[sorted.length / 2], sorted[0], sorted[sorted.length - 1],
                sorted.length);
    }
}
