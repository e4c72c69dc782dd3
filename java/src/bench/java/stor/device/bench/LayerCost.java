package stor.device.bench;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.JniSkipListNative;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.Visitor;

/**
 * Measures what a map costs more than its native methods: replays a recorded trace through both by
 * turns, in one JVM. Reads walk their range and read every field, writes go to one file after
 * another, discards store the empty location; every second buffer is given back at once. Then reads
 * a counter, which takes little but the lock. Arguments: the trace, the number of rounds. With a
 * sector size that divides no request ({@code skiplist.test.sector=509}), every insert looks at its
 * neighbours first.
 */
public final class LayerCost {
    private static final int HEIGHT = 12;
    private static final int SECTOR_SIZE = Integer.getInteger("skiplist.test.sector", 512);
    private static final int RELEASE_INTERVAL = 2;
    // Makes the map one of a large device, in which joined ranges might become too long.
    private static final long FAR_AWAY = 1L << 40;
    private static final int COUNTER_CALLS = 1_000_000;
    private static final int WARM_UP_ROUNDS = 4;

    private final List<Operation> operations;
    private final ByteBuf bytes;
    private long sum;

    private LayerCost(List<Operation> operations) {
        this.operations = operations;
        int longest = operations.stream().mapToInt(Operation::length).max().orElseThrow();
        bytes = Unpooled.directBuffer(longest).writeZero(longest);
    }

    /** Prints the medians of both, without and with buffers. */
    public static void main(String[] args) throws IOException {
        LayerCost cost = new LayerCost(Workloads.trace(Path.of(args[0]), SECTOR_SIZE));
        int rounds = Integer.parseInt(args[1]);
        for (boolean buffered : new boolean[] {false, true}) {
            double[] raw = new double[rounds];
            double[] layer = new double[rounds];
            for (int i = -WARM_UP_ROUNDS; i < rounds; i++) {
                long start = System.nanoTime();
                cost.replayRaw(buffered);
                long middle = System.nanoTime();
                cost.replayLayer(buffered);
                long end = System.nanoTime();
                if (i >= 0) {
                    raw[i] = (double) (middle - start) / cost.operations.size();
                    layer[i] = (double) (end - middle) / cost.operations.size();
                }
            }
            double[] ratios = new double[rounds];
            Arrays.setAll(ratios, i -> layer[i] / raw[i]);
            System.out.printf(
                    "%s: raw %.0f ns, layer %.0f ns a request; ratio %.3f (median of %d)%n",
                    buffered ? "with buffers" : "without buffers", median(raw), median(layer),
                    median(ratios), rounds);
        }
        cost.measureCounter(rounds);
        System.out.println("checksum " + cost.sum);
    }

    private void measureCounter(int rounds) {
        double[] raw = new double[rounds];
        double[] layer = new double[rounds];
        long handle = JniSkipListNative.createSkipList(HEIGHT, SECTOR_SIZE);
        try (OffHeapRangeMap map = newMap()) {
            for (int i = 0; i < rounds; i++) {
                long start = System.nanoTime();
                for (int call = 0; call < COUNTER_CALLS; call++) {
                    sum += JniSkipListNative.getSkipListSize(handle);
                }
                long middle = System.nanoTime();
                for (int call = 0; call < COUNTER_CALLS; call++) {
                    sum += map.size();
                }
                raw[i] = (double) (middle - start) / COUNTER_CALLS;
                layer[i] = (double) (System.nanoTime() - middle) / COUNTER_CALLS;
            }
        }
        JniSkipListNative.destorySkipList(handle);
        System.out.printf("a counter: raw %.1f ns, layer %.1f ns a call (median of %d)%n",
                median(raw), median(layer), rounds);
    }

    private void replayRaw(boolean buffered) {
        long map = JniSkipListNative.createSkipList(HEIGHT, SECTOR_SIZE);
        JniSkipListNative.insert(map, FAR_AWAY, SECTOR_SIZE, 0, 1, 0, (byte) 0);
        int writes = 0;
        for (Operation operation : operations) {
            long offset = operation.offset();
            int length = operation.length();
            FileLocation at = operation.at();
            if (operation.isQuery()) {
                long[] run = JniSkipListNative.getNodes(map, offset, length);
                for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
                    sum += JniSkipListNative.getNodeIndexOffset(node)
                            + JniSkipListNative.getNodeIndexLen(node)
                            + Byte.toUnsignedInt(JniSkipListNative.getNodeFileNumber(node))
                            + JniSkipListNative.getNodeFileOffset(node)
                            + JniSkipListNative.getNodeFileMajorVer(node)
                            + JniSkipListNative.getNodeFileMinorVer(node);
                }
            } else if (!buffered || at.isEmpty()) {
                JniSkipListNative.insert(map, offset, length, at.offset(), at.majorVer(),
                        at.minorVer(), (byte) at.number());
            } else {
                JniSkipListNative.insertWithBuff(map, offset, length, at.offset(), at.majorVer(),
                        at.minorVer(), (byte) at.number(), bytes.slice(0, length));
                if (++writes % RELEASE_INTERVAL == 0) {
                    JniSkipListNative.compareAndRelease(map, offset, length, at.offset(),
                            at.majorVer(), at.minorVer(), (byte) at.number());
                }
            }
        }
        JniSkipListNative.destorySkipList(map);
    }

    private void replayLayer(boolean buffered) {
        try (OffHeapRangeMap map = newMap()) {
            map.insert(FAR_AWAY, SECTOR_SIZE, new FileLocation(0, 0, 1, 0));
            int writes = 0;
            Visitor visitor =
                    (offset, len, file, fileOffset, majorVer, minorVer, range) ->
                            sum += offset + len + file + fileOffset + majorVer + minorVer;
            for (Operation operation : operations) {
                long offset = operation.offset();
                int length = operation.length();
                FileLocation at = operation.at();
                if (operation.isQuery()) {
                    map.forEach(offset, length, visitor);
                    continue;
                }
                FileLocation place = new FileLocation(
                        at.number(), at.offset(), at.majorVer(), at.minorVer());
                if (!buffered || at.isEmpty()) {
                    map.insert(offset, length, place);
                } else {
                    map.insert(offset, length, place, bytes);
                    if (++writes % RELEASE_INTERVAL == 0) {
                        map.compareAndRelease(offset, length, place);
                    }
                }
            }
        }
    }

    /** Gives a map that takes the trace's requests, in whole sectors or not. */
    private static OffHeapRangeMap newMap() {
        return SECTOR_SIZE == 512
                ? OffHeapRangeMap.create(HEIGHT, SECTOR_SIZE)
                : OffHeapRangeMap.createUnaligned(HEIGHT, SECTOR_SIZE);
    }

    private static double median(double[] values) {
        return Summary.of(values).median();
    }
}
