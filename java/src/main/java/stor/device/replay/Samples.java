package stor.device.replay;

import java.util.ArrayList;
import java.util.List;
import java.util.function.Supplier;
import stor.device.store.StoreStats;

/** What a store held in the course of a run: few enough samples for a chart, however long. */
final class Samples {
    private static final int MAX_SAMPLES = 600;
    private static final long FIRST_INTERVAL_NANOS = 50_000_000L;

    private final List<Sample> samples = new ArrayList<>();
    private final long start = System.nanoTime();
    private long interval = FIRST_INTERVAL_NANOS;
    private long next;

    /** The figures of one moment. */
    record Sample(double seconds, long requests, StoreStats stats) {
    }

    /** Takes a sample if it is time for one. */
    void update(long requests, Supplier<StoreStats> stats) {
        long elapsed = System.nanoTime() - start;
        if (elapsed < next) {
            return;
        }
        samples.add(new Sample(elapsed / 1e9, requests, stats.get()));
        if (samples.size() == MAX_SAMPLES) {
            thin();
        }
        next = elapsed + interval;
    }

    List<Sample> all() {
        return List.copyOf(samples);
    }

    private void thin() {
        for (int i = samples.size() - 1; i > 0; i -= 2) {
            samples.remove(i);
        }
        interval *= 2;
    }
}
