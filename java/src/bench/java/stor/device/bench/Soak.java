package stor.device.bench;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;
import java.util.Random;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.LongStream;
import java.util.stream.Stream;
import javax.management.JMException;
import javax.management.ObjectName;
import stor.device.replay.Replay;
import stor.device.replay.ReplayOptions;
import stor.device.replay.Request;
import stor.device.replay.Request.Kind;
import stor.device.store.StoreStats;

/**
 * Keeps a block store under load for some minutes, every byte checked, and watches what the process
 * holds. The store is made as tight as it can bear: its limit refuses writes all the time, every
 * seventh flush is ended in its middle, discards and snapshots come all the time.
 *
 * <p>A sample is taken every minute, always in the same state: all files in the order of the
 * device, a new snapshot, nothing buffered, no work in the background. So what differs between
 * samples has stayed behind.
 */
public final class Soak {
    private static final int SECTOR = 512;
    private static final int DEVICE_SECTORS = 1 << 17;
    private static final int MAX_SECTORS = 16;
    private static final int MAX_DISCARD_SECTORS = 512;
    private static final int SNAPSHOT_EVERY = 5000;
    private static final List<String> OPTIONS = List.of(
            "--buffer-size", "1M", "--segment-size", "2M", "--memory-limit", "3400K",
            "--flush-every", "400", "--compact-every", "1000", "--fail-flush-every", "7",
            "--snapshot-every", Integer.toString(SNAPSHOT_EVERY), "none.trace");

    private static final int LEAST_MINUTES = 3;
    private static final Pattern GLOBAL_REFERENCES = Pattern.compile("JNI global refs: (\\d+)");
    private static final Pattern RESIDENT = Pattern.compile("VmRSS:\\s+(\\d+) kB");

    private final Random random = new Random(7);
    private final Replay replay;
    private long requests;

    private Soak(Replay replay) {
        this.replay = replay;
    }

    /** What must not grow, and by how much a sample may exceed earlier ones all the same. */
    private enum Figure {
        RESIDENT_KB(0.05, 4096),
        HEAP_KB(0.05, 1024),
        RANGES(0.1, 0),
        NATIVE_BYTES(0.1, 0),
        BUFFERS(0, 1),
        GLOBAL_REFERENCES(0, 8),
        // Those of segments come and go with the ranges.
        OTHER_FILES(0, 0);

        private final double share;
        private final long slack;

        Figure(double share, long slack) {
            this.share = share;
            this.slack = slack;
        }

        /** Compares the second half of the samples with the first. */
        boolean isFlat(List<long[]> samples) {
            int half = samples.size() / 2;
            return most(samples.subList(half, samples.size()))
                    <= most(samples.subList(0, half)) * (1 + share) + slack;
        }

        private long most(List<long[]> samples) {
            return samples.stream().mapToLong(sample -> sample[ordinal()]).max().orElseThrow();
        }
    }

    /**
     * Runs for some minutes; ends the JVM with 0 if all figures stayed flat and all came back to
     * nothing in the end, otherwise with 1.
     *
     * <p>All it has to say is on standard output: standard error belongs to the library, which
     * reports there every write that the limit refuses.
     *
     * @param args the number of minutes
     */
    public static void main(String[] args) {
        int minutes = args.length == 1 ? Integer.parseInt(args[0]) : 0;
        if (minutes < LEAST_MINUTES) {
            System.out.println("usage: Soak MINUTES (at least " + LEAST_MINUTES + ")");
            System.exit(2);
        }
        try {
            System.exit(run(minutes) ? 0 : 1);
        } catch (Exception | Error e) {
            e.printStackTrace(System.out);
            System.exit(1);
        }
    }

    private static boolean run(int minutes) throws Exception {
        Path folder = Files.createTempDirectory("soak-");
        Replay replay = new Replay(ReplayOptions.parse(OPTIONS.toArray(String[]::new)), folder);
        long referencesBefore = globalReferences();
        List<long[]> samples;
        try (replay) {
            samples = new Soak(replay).samples(minutes);
        }
        boolean flat = true;
        List<long[]> afterWarmUp =
                samples.subList(Math.max(1, samples.size() / 5), samples.size());
        for (Figure figure : Figure.values()) {
            if (!figure.isFlat(afterWarmUp)) {
                flat = false;
                System.out.println("NOT FLAT: " + figure);
            }
        }
        boolean clean = isNothing("buffers", replay.buffers().inUse())
                & isNothing("native bytes", Sweep.bytesInUse())
                & isNothing("global references beyond those at the start and "
                        + Figure.GLOBAL_REFERENCES.slack, Math.max(0, globalReferences()
                        - referencesBefore - Figure.GLOBAL_REFERENCES.slack));
        Files.delete(folder);
        System.out.println(flat && clean ? "verdict: flat after warm-up, and nothing left behind"
                : "verdict: FAILED");
        return flat && clean;
    }

    private List<long[]> samples(int minutes) throws Exception {
        System.out.println("minute  requests refused killed snapshots given-up segments"
                + " | resident kB, heap kB, ranges, native bytes, buffers, global refs, files");
        List<long[]> samples = new ArrayList<>();
        long start = System.nanoTime();
        for (int minute = 1; minute <= minutes; minute++) {
            long end = start + Duration.ofMinutes(minute).toNanos();
            while (System.nanoTime() < end || requests % SNAPSHOT_EVERY != SNAPSHOT_EVERY - 1) {
                serve();
            }
            samples.add(sample(minute));
        }
        if (replay.store().stats().refusedInserts() == 0 || replay.killedFlushes() == 0
                || replay.snapshots() == 0) {
            throw new IllegalStateException("the load is too light to show anything");
        }
        return samples;
    }

    private void serve() throws IOException {
        requests++;
        int choice = random.nextInt(100);
        Kind kind = choice < 50 ? Kind.WRITE : choice < 90 ? Kind.READ : Kind.DISCARD;
        int longest = choice == 99 ? MAX_DISCARD_SECTORS : MAX_SECTORS;
        int length = 1 + random.nextInt(longest);
        // Half of the requests go to an eighth of the device.
        int part = random.nextBoolean() ? DEVICE_SECTORS / 8 : DEVICE_SECTORS;
        long offset = random.nextInt(part - length + 1);
        replay.serve(new Request(kind, offset * SECTOR, length * SECTOR, 0));
    }

    private long[] sample(int minute) throws Exception {
        replay.settle();
        replay.store().defragment();
        serve();  // takes the snapshot
        replay.settle();
        System.gc();
        StoreStats stats = replay.store().stats();
        long[] sample = new long[Figure.values().length];
        sample[Figure.RESIDENT_KB.ordinal()] = resident();
        sample[Figure.HEAP_KB.ordinal()] =
                ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed() >> 10;
        sample[Figure.RANGES.ordinal()] = stats.ranges();
        sample[Figure.NATIVE_BYTES.ordinal()] = Sweep.bytesInUse();
        sample[Figure.BUFFERS.ordinal()] = replay.buffers().inUse();
        sample[Figure.GLOBAL_REFERENCES.ordinal()] = globalReferences();
        sample[Figure.OTHER_FILES.ordinal()] = openFiles() - stats.segments();
        System.out.printf(Locale.ROOT, "%6d %9d %7d %6d %9d %8d %8d | %s%n", minute, requests,
                stats.refusedInserts(), replay.killedFlushes(), replay.snapshots(),
                replay.snapshotsGivenUp(), stats.segments(), LongStream.of(sample)
                        .mapToObj(Long::toString).collect(Collectors.joining(" ")));
        return sample;
    }

    private static boolean isNothing(String what, long left) {
        if (left != 0) {
            System.out.println("LEFT BEHIND: " + left + " " + what);
        }
        return left == 0;
    }

    private static long resident() throws IOException {
        return number(RESIDENT, Files.readString(Path.of("/proc/self/status")));
    }

    private static long openFiles() throws IOException {
        try (Stream<Path> files = Files.list(Path.of("/proc/self/fd"))) {
            return files.count();
        }
    }

    /** Asks the JVM, which tells it at the end of a list of its threads. */
    private static long globalReferences() throws JMException {
        Object threads = ManagementFactory.getPlatformMBeanServer().invoke(
                new ObjectName("com.sun.management:type=DiagnosticCommand"), "threadPrint",
                new Object[] {null}, new String[] {String[].class.getName()});
        return number(GLOBAL_REFERENCES, (String) threads);
    }

    private static long number(Pattern pattern, String text) {
        Matcher matcher = pattern.matcher(text);
        if (!matcher.find()) {
            throw new IllegalStateException("no " + pattern + " in: " + text);
        }
        return Long.parseLong(matcher.group(1));
    }
}
