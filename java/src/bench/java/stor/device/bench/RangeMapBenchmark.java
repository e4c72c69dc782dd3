package stor.device.bench;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.MemoryManagerMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Random;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.HdrHistogram.Histogram;
import stor.device.skiplist.Visitor;

/**
 * Compares range maps in one JVM: the native methods, the safe layer, and what a Java program would
 * use instead. Prints tables, and writes a JSON file if asked to.
 *
 * <p>Before a workload is timed, all maps get its operations and have to agree ({@link Agreement}).
 * Then come rounds, of which the first do not count; in each, every map is made anew, filled, and
 * timed over the whole batch, and once more operation by operation. The order of the maps is drawn
 * for each round. The garbage of the maps before is collected before the time is taken, so a
 * collection in that time is the map's own. Native memory is not put in order: a map gets what
 * those of earlier rounds gave back, wherever that lies.
 *
 * <p>In the case {@code held}, one map at a time holds its ranges while the heap is collected. The
 * time is that of {@link System#gc}, seen from outside.
 */
public final class RangeMapBenchmark {
    private static final String HELD = "held";
    private static final int WARM_UP_ROUNDS = 3;
    private static final long LONGEST_NANOS = 10_000_000_000L;
    private static final int SIGNIFICANT_DIGITS = 3;
    private static final List<String> PERCENTILES = List.of("50", "99", "99.9");

    private final Options options;
    private final Results results = new Results();
    private final Random random = new Random(4);
    // Depends on all that is read, so that nothing of it can be left out.
    private long checksum;
    private final Visitor reader =
            (offset, length, number, fileOffset, majorVer, minorVer, visited) ->
                    checksum += offset + length + number + fileOffset + majorVer + minorVer;

    /** What is done to a new map before the time is taken, and while it is. */
    private record Workload(String name, List<Operation> setUp, List<Operation> timed) {
    }

    private RangeMapBenchmark(Options options) {
        this.options = options;
    }

    /** Runs the chosen cases; fails if the maps disagree. */
    public static void main(String[] args) throws IOException, InterruptedException {
        new RangeMapBenchmark(Options.parse(args)).run();
    }

    private void run() throws IOException, InterruptedException {
        System.out.println("Java " + System.getProperty("java.vm.version") + ", "
                + Runtime.getRuntime().availableProcessors() + " processors, heap of up to "
                + (Runtime.getRuntime().maxMemory() >> 20) + " MiB, collectors: "
                + ManagementFactory.getGarbageCollectorMXBeans().stream()
                        .map(MemoryManagerMXBean::getName).collect(Collectors.joining(", ")));
        for (String name : options.cases()) {
            if (name.equals(HELD)) {
                holdEach();
            } else {
                compare(workload(name));
            }
        }
        results.print(System.out);
        System.out.println("\nchecksum " + checksum);
        if (!options.out().isEmpty()) {
            Files.writeString(Path.of(options.out()), results.json());
        }
    }

    private Workload workload(String name) throws IOException {
        int ranges = options.ranges();
        return switch (name) {
            case "trace" -> new Workload(
                    name, List.of(), Workloads.trace(options.trace(), Workloads.SECTOR_SIZE));
            case "insert" -> new Workload(name, List.of(), Workloads.fill(ranges).toList());
            case "overwrite" -> new Workload(
                    name, Workloads.fill(ranges).toList(), Workloads.overwrite(ranges));
            case "find" -> new Workload(
                    name, Workloads.fill(ranges).toList(), Workloads.find(ranges));
            default -> throw new IllegalArgumentException("no case of this name: " + name);
        };
    }

    private void compare(Workload workload) {
        int ranges = Agreement.check(workload.name(),
                Stream.concat(workload.setUp().stream(), workload.timed().stream()));
        System.out.printf("%s: %,d operations, all maps agree%n",
                workload.name(), workload.timed().size());
        List<Contender> order = Arrays.asList(Contender.values());
        for (int round = -WARM_UP_ROUNDS; round < options.rounds(); round++) {
            Collections.shuffle(order, random);
            for (Contender contender : order) {
                double nanos = nanosPerOperation(contender, workload);
                Histogram latencies = latencies(contender, workload);
                if (round >= 0) {
                    results.add(workload.name(), ranges, contender, "ns per operation", nanos);
                    PERCENTILES.forEach(percentile -> results.add(workload.name(), ranges,
                            contender, "p" + percentile + " ns",
                            latencies.getValueAtPercentile(Double.parseDouble(percentile))));
                }
            }
        }
    }

    private double nanosPerOperation(Contender contender, Workload workload) {
        try (RangeMap map = filled(contender, workload)) {
            long start = System.nanoTime();
            serve(map, workload.timed());
            return (double) (System.nanoTime() - start) / workload.timed().size();
        }
    }

    private Histogram latencies(Contender contender, Workload workload) {
        Histogram histogram = new Histogram(LONGEST_NANOS, SIGNIFICANT_DIGITS);
        try (RangeMap map = filled(contender, workload)) {
            for (Operation operation : workload.timed()) {
                long start = System.nanoTime();
                operation.applyTo(map, reader);
                histogram.recordValue(System.nanoTime() - start);
            }
        }
        return histogram;
    }

    private RangeMap filled(Contender contender, Workload workload) {
        RangeMap map = contender.create();
        serve(map, workload.setUp());
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
