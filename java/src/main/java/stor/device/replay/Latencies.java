package stor.device.replay;

import java.io.IOException;
import java.util.EnumMap;
import java.util.Locale;
import java.util.Map;
import org.HdrHistogram.Histogram;
import org.HdrHistogram.SynchronizedHistogram;

/** Collects how long operations take, in nanoseconds. Safe for use by several threads. */
final class Latencies {
    private static final int SIGNIFICANT_DIGITS = 3;

    private final Map<Operation, Histogram> histograms = new EnumMap<>(Operation.class);

    /** What is measured. */
    enum Operation {
        WRITE,
        READ,
        DISCARD,
        FLUSH,
        COMPACT,
        SNAPSHOT;

        @Override
        public String toString() {
            return name().toLowerCase(Locale.ROOT);
        }
    }

    /** Code that is measured. */
    interface Measured<T> {
        T run() throws IOException;
    }

    Latencies() {
        for (Operation operation : Operation.values()) {
            histograms.put(operation, new SynchronizedHistogram(SIGNIFICANT_DIGITS));
        }
    }

    /** Runs code, and notes its time unless it fails. */
    <T> T measure(Operation operation, Measured<T> code) throws IOException {
        long before = System.nanoTime();
        T result = code.run();
        of(operation).recordValue(System.nanoTime() - before);
        return result;
    }

    Histogram of(Operation operation) {
        return histograms.get(operation);
    }
}
