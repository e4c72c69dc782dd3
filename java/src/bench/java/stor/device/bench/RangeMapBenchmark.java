package stor.device.bench;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryManagerMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.ExecutionException;
import java.util.stream.Collectors;
import org.HdrHistogram.Histogram;

/**
 * Compares range maps in one JVM: the native methods, the safe layer, and what a Java program would
 * use instead. Prints tables, and writes a JSON file if asked to.
 *
 * <p>Before a workload is timed, all maps get its operations and have to agree ({@link Agreement}).
 * Then come rounds, of which the first do not count; in each, every map is made anew, filled, and
 * timed over the whole batch, and once more operation by operation: a new one, if the operations
 * change it. What two threads do at once is timed for one of them alone as well. The order of the
 * maps is drawn for each round. The garbage of the maps before is collected before the time is
 * taken, so a collection in that time is the map's own. Native memory is not put in order: a map
 * gets what those of earlier rounds gave back, wherever that lies.
 *
 * <p>In the case {@code held}, one map at a time holds its ranges while the heap is collected. The
 * time is that of {@link System#gc}, seen from outside.
 */
public final class RangeMapBenchmark {
    private static final String HELD = "held";
    private static final long LONGEST_NANOS = 10_000_000_000L;
    private static final int SIGNIFICANT_DIGITS = 3;
    private static final List<String> PERCENTILES = List.of("50", "99", "99.9");

    private final Options options;
    private final Results results = new Results();
    private final Random random = new Random(4);
    private final Reader reader = new Reader();
    private long checksum;

    private RangeMapBenchmark(Options options) {
        this.options = options;
    }

    /** Runs the chosen cases; fails if the maps disagree. */
    public static void main(String[] args)
            throws IOException, InterruptedException, ExecutionException {
        new RangeMapBenchmark(Options.parse(args)).run();
    }

    private void run() throws IOException, InterruptedException, ExecutionException {
        System.out.println("Java " + System.getProperty("java.vm.version") + ", "
                + Runtime.getRuntime().availableProcessors() + " processors, heap of up to "
                + (Runtime.getRuntime().maxMemory() >> 20) + " MiB, collectors: "
                + ManagementFactory.getGarbageCollectorMXBeans().stream()
                        .map(MemoryManagerMXBean::getName).collect(Collectors.joining(", ")));
        for (String name : options.cases()) {
            if (name.equals(HELD)) {
                holdEach();
            } else {
                compare(Workload.named(name, options));
            }
        }
        results.print(System.out);
        System.out.println("\nchecksum " + (checksum + reader.checksum()));
        if (!options.out().isEmpty()) {
            Files.writeString(Path.of(options.out()), results.json());
        }
    }

    private void compare(Workload workload) throws InterruptedException, ExecutionException {
        int ranges = Agreement.check(workload);
        System.out.printf("%s: %,d operations, all maps agree%n", workload.name(),
                workload.batches().stream().mapToInt(List::size).sum());
        List<Contender> order = new ArrayList<>(workload.contenders());
        for (int round = -options.warmUpRounds(); round < options.rounds(); round++) {
            Collections.shuffle(order, random);
            for (Contender contender : order) {
                Map<String, Double> figures = workload.isShared()
                        ? timeShared(contender, workload) : timeAlone(contender, workload);
                if (round >= 0) {
                    figures.forEach((metric, value) -> results.add(
                            workload.name(), ranges, contender, metric, value));
                }
            }
        }
    }

    private Map<String, Double> timeAlone(Contender contender, Workload workload) {
        List<Operation> timed = workload.batches().get(0);
        Map<String, Double> figures = new LinkedHashMap<>();
        Histogram latencies = new Histogram(LONGEST_NANOS, SIGNIFICANT_DIGITS);
        try (RangeMap map = filled(contender, workload)) {
            long start = System.nanoTime();
            serve(map, timed);
            figures.put("ns per operation", (double) (System.nanoTime() - start) / timed.size());
            if (workload.isReadOnly()) {
                record(map, timed, latencies);
            }
        }
        if (!workload.isReadOnly()) {
            try (RangeMap map = filled(contender, workload)) {
                record(map, timed, latencies);
            }
        }
        PERCENTILES.forEach(percentile -> figures.put("p" + percentile + " ns",
                (double) latencies.getValueAtPercentile(Double.parseDouble(percentile))));
        return figures;
    }

    private void record(RangeMap map, List<Operation> operations, Histogram latencies) {
        for (Operation operation : operations) {
            long start = System.nanoTime();
            operation.applyTo(map, reader);
            latencies.recordValue(System.nanoTime() - start);
        }
    }

    private Map<String, Double> timeShared(Contender contender, Workload workload)
            throws InterruptedException, ExecutionException {
        Map<String, Double> figures = new LinkedHashMap<>();
        try (RangeMap map = filled(contender, workload)) {
            double one = timeThreads(map, workload.batches().subList(0, 1));
            double two = timeThreads(map, workload.batches());
            figures.put("ns per operation, one thread", one);
            figures.put("ns per operation, two threads", two);
            figures.put(Results.GAIN, one / two);
        }
        return figures;
    }

    private double timeThreads(RangeMap map, List<List<Operation>> batches)
            throws InterruptedException, ExecutionException {
        SharedUse.Outcome outcome = SharedUse.time(map, batches);
        checksum += outcome.checksum();
        return outcome.nanosPerOperation();
    }

    private RangeMap filled(Contender contender, Workload workload) {
        RangeMap map = workload.maker().apply(contender);
        workload.setUp().get().forEach(operation -> operation.applyTo(map, reader));
        System.gc();
        return map;
    }

    private void serve(RangeMap map, List<Operation> operations) {
        for (Operation operation : operations) {
            operation.applyTo(map, reader);
        }
    }

    private void holdEach() throws InterruptedException {
        for (Contender contender : Contender.values()) {
            System.gc();
            long before = heapBytes();
            try (RangeMap map = contender.create()) {
                Workloads.fill(options.gcRanges())
                        .forEach(operation -> operation.applyTo(map, reader));
                // Leaves no garbage to those that are timed.
                System.gc();
                for (int round = 0; round < options.rounds(); round++) {
                    long start = System.nanoTime();
                    System.gc();
                    double nanos = System.nanoTime() - start;
                    addHeld(contender, "full collection ms", nanos / 1e6);
                    addHeld(contender, "heap bytes", heapBytes() - before);
                }
                if (contender.isOffHeap()) {
                    addHeld(contender, "native bytes", Sweep.bytesInUse());
                }
            }
        }
    }

    private void addHeld(Contender contender, String metric, double value) {
        results.add(HELD, options.gcRanges(), contender, metric, value);
    }

    private static long heapBytes() {
        return ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed();
    }
}
