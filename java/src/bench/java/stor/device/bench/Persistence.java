package stor.device.bench;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.channels.Channels;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.Random;
import java.util.function.IntUnaryOperator;
import java.util.stream.IntStream;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.store.BlockStore;
import stor.device.store.StoreSettings;

/**
 * What it costs to keep maps in files and to open a store again, beside what it costs to make the
 * same maps by inserts. Neighbouring ranges of 8 sectors at scattered places; the CPU time of the
 * calling thread without the system's, and the time that passes, in milliseconds: the median of some rounds.
 */
public final class Persistence {
    private static final int ROUNDS = 5;
    private static final int SECTOR = 512;
    private static final int LENGTH = 8 * SECTOR;
    private static final ThreadMXBean THREAD = ManagementFactory.getThreadMXBean();

    private final int ranges;
    private final int[] order;
    private final Map<String, List<long[]>> times = new LinkedHashMap<>();

    private Persistence(int ranges) {
        this.ranges = ranges;
        order = IntStream.range(0, ranges).toArray();
        Random random = new Random(1);
        for (int i = ranges - 1; i > 0; i--) {
            int other = random.nextInt(i + 1);
            int kept = order[i];
            order[i] = order[other];
            order[other] = kept;
        }
    }

    /** Something to measure. */
    private interface Work<T> {
        T run() throws IOException;
    }

    /**
     * Measures.
     *
     * @param args the number of ranges, 1,000,000 if not given
     * @throws IOException if a file cannot be read or written
     */
    public static void main(String[] args) throws IOException {
        int ranges = args.length > 0 ? Integer.parseInt(args[0]) : 1_000_000;
        Persistence measured = new Persistence(ranges);
        for (int round = 0; round < ROUNDS; round++) {
            measured.maps();
            measured.store();
        }
        measured.times.forEach((what, rounds) -> System.out.printf(Locale.ROOT,
                "%-48s %,8d ms user %,8d ms%n", what, median(rounds, 0), median(rounds, 1)));
    }

    private void maps() throws IOException {
        measure("insert one by one, in random order", () -> fill(i -> order[i])).close();
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        try (OffHeapRangeMap map = measure("insert one by one, in order", () -> fill(i -> i))) {
            measure("save", () -> {
                map.save(Channels.newChannel(out));
                return null;
            });
        }
        measure(String.format(Locale.ROOT, "load, %.1f bytes a range",
                (double) out.size() / ranges), () -> OffHeapRangeMap.load(
                Channels.newChannel(new ByteArrayInputStream(out.toByteArray())))).close();
    }

    private OffHeapRangeMap fill(IntUnaryOperator next) {
        OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR);
        for (int i = 0; i < ranges; i++) {
            int range = next.applyAsInt(i);
            int place = (int) (range * 2654435761L & 0xFFFFF) * (SECTOR + 8);
            map.insert((long) range * LENGTH, LENGTH, new FileLocation(0, place, range & 3, 0));
        }
        return map;
    }

    /** Every other sector is written, so that nothing is joined. */
    private void store() throws IOException {
        Path folder = Files.createTempDirectory("persistence-");
        StoreSettings settings = new StoreSettings(SECTOR, 64 << 20, 64 << 20, 4L << 30, 12);
        BlockStore store = BlockStore.open(folder, settings);
        ByteBuf sector = Unpooled.buffer(SECTOR).writeZero(SECTOR);
        for (int i = 0; i < ranges; i++) {
            store.write(2L * SECTOR * i, sector);
        }
        store.flush();
        measure("store: close, with its checkpoint", () -> {
            store.close();
            return null;
        });
        BlockStore again = measure("store: open", () -> BlockStore.open(folder, settings));
        again.close();
        try (DirectoryStream<Path> files = Files.newDirectoryStream(folder)) {
            for (Path file : files) {
                Files.delete(file);
            }
        }
        Files.delete(folder);
    }

    private <T> T measure(String what, Work<T> work) throws IOException {
        long cpu = THREAD.getCurrentThreadUserTime();
        long start = System.nanoTime();
        T result = work.run();
        times.computeIfAbsent(what, name -> new ArrayList<>()).add(new long[] {
            THREAD.getCurrentThreadUserTime() - cpu, System.nanoTime() - start});
        return result;
    }

    private static long median(List<long[]> rounds, int which) {
        long[] sorted = rounds.stream().mapToLong(round -> round[which]).sorted().toArray();
        return sorted[sorted.length / 2] / 1_000_000;
    }
}
