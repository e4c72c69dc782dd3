package stor.device.replay;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;
import java.util.function.LongSupplier;
import java.util.function.Supplier;
import stor.device.store.StoreStats;

/**
 * What a store held in the course of a run, for charts: few enough samples, however long. A thread
 * of its own takes them, so that a time in which no request is served shows as one.
 */
final class StoreSamples implements AutoCloseable {
    private static final int MAX_SAMPLES = 600;
    private static final int TICK_MILLIS = 50;

    private final ScheduledExecutorService thread = Executors.newSingleThreadScheduledExecutor(
            work -> {
                Thread sampler = new Thread(work, "sampler");
                sampler.setDaemon(true);
                return sampler;
            });
    private final Supplier<StoreStats> stats;
    private final LongSupplier requests;
    private final List<Sample> samples = new ArrayList<>();
    private final long start = System.nanoTime();
    private int ticksPerSample = 1;
    private int ticks;

    /** The figures of one moment. */
    record Sample(double seconds, long requests, StoreStats stats) {
    }

    StoreSamples(Supplier<StoreStats> stats, LongSupplier requests) {
        this.stats = stats;
        this.requests = requests;
        thread.scheduleAtFixedRate(this::tick, 0, TICK_MILLIS, TimeUnit.MILLISECONDS);
    }

    synchronized List<Sample> all() {
        return List.copyOf(samples);
    }

    /** Gives how far apart samples are that follow each other; twice that is a gap. */
    synchronized double intervalSeconds() {
        return ticksPerSample * TICK_MILLIS / 1e3;
    }

    /** Takes no more samples; waits for one under way, so that the store may be closed. */
    @Override
    public void close() {
        thread.shutdown();
        try {
            thread.awaitTermination(Long.MAX_VALUE, TimeUnit.NANOSECONDS);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    private synchronized void tick() {
        if (ticks++ % ticksPerSample == 0) {
            samples.add(new Sample(
                    (System.nanoTime() - start) / 1e9, requests.getAsLong(), stats.get()));
            if (samples.size() == MAX_SAMPLES) {
                thin();
            }
        }
    }

    private void thin() {
        for (int i = samples.size() - 1; i > 0; i -= 2) {
            samples.remove(i);
        }
        ticksPerSample *= 2;
    }
}
