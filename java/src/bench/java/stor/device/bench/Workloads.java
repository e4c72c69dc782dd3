package stor.device.bench;

import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.function.BiFunction;
import java.util.stream.Stream;
import stor.device.skiplist.FileLocation;
import stor.device.replay.Request;
import stor.device.replay.TraceReader;

/** The operations that are timed, made from fixed seeds: the same in every run and for all maps. */
final class Workloads {
    static final int SECTOR_SIZE = 512;

    private static final int EXTRA_BYTES_PER_SECTOR = 8;
    private static final int SECTORS_PER_PAGE = 8;
    private static final int PAGE_BYTES = SECTORS_PER_PAGE * SECTOR_SIZE;
    private static final int MOST_SECTORS = 2 * SECTORS_PER_PAGE;

    private Workloads() {
    }

    /** Tells how far apart in the file two bytes lie that are so far apart on the device. */
    static long fileDistance(long distance, int sectorSize) {
        return distance + distance / sectorSize * EXTRA_BYTES_PER_SECTOR;
    }

    /** Makes ranges of a page each, side by side, in random order, of which no two can be fused. */
    static Stream<Operation> fill(int count) {
        SegmentLog log = new SegmentLog(SECTOR_SIZE);
        return Arrays.stream(shuffled(count)).mapToObj(page -> new Operation(
                (long) page * PAGE_BYTES, PAGE_BYTES, log.appendApart(PAGE_BYTES)));
    }

    /** Makes writes of 1 to 16 sectors at random sectors of a device of so many pages. */
    static List<Operation> overwrite(int count) {
        SegmentLog log = new SegmentLog(SECTOR_SIZE);
        return atRandom(2, count,
                (offset, length) -> new Operation(offset, length, log.appendApart(length)));
    }

    /** Makes as many queries, at places drawn in the same way. */
    static List<Operation> find(int count) {
        return atRandom(3, count, Operation::query);
    }

    /**
     * Makes what a log-structured store does for a trace: a read is a query, a write goes to the
     * next place of the log, a discard stores the empty location.
     */
    static List<Operation> trace(Path path, int sectorSize) throws IOException {
        SegmentLog log = new SegmentLog(sectorSize);
        List<Operation> operations = new ArrayList<>();
        try (TraceReader trace = new TraceReader(path)) {
            for (Request next = trace.next(); next != null; next = trace.next()) {
                operations.add(switch (next.kind()) {
                    case READ -> Operation.query(next.offset(), (int) next.length());
                    case WRITE -> write(next.offset(), (int) next.length(), log);
                    case DISCARD -> new Operation(
                            next.offset(), (int) next.length(), FileLocation.EMPTY);
                });
            }
        }
        return operations;
    }

    private static Operation write(long offset, int length, SegmentLog log) {
        return new Operation(offset, length, log.append(length));
    }

    private static List<Operation> atRandom(
            int seed, int pages, BiFunction<Long, Integer, Operation> make) {
        Random random = new Random(seed);
        int starts = pages * SECTORS_PER_PAGE - MOST_SECTORS;
        return Stream.generate(() -> make.apply((long) random.nextInt(starts) * SECTOR_SIZE,
                (1 + random.nextInt(MOST_SECTORS)) * SECTOR_SIZE)).limit(pages).toList();
    }

    private static int[] shuffled(int count) {
        Random random = new Random(1);
        int[] numbers = new int[count];
        for (int i = 0; i < count; i++) {
            int place = random.nextInt(i + 1);
            numbers[i] = numbers[place];
            numbers[place] = i;
        }
        return numbers;
    }
}
