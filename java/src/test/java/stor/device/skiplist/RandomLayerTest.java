package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import io.netty.buffer.ByteBuf;
import java.util.ArrayList;
import java.util.List;
import java.util.Optional;
import java.util.Random;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import stor.device.replay.CountedBuffers;
import stor.device.replay.Location;
import stor.device.replay.Range;
import stor.device.replay.RangeModel;

/**
 * Compares two maps with their models after every random operation, each on whatever thread comes
 * next. The property {@code skiplist.test.seed} chooses the operations.
 */
@ExtendWith(LeakHunt.class)
class RandomLayerTest {
    private static final long SEED = Long.getLong("skiplist.test.seed", 42);
    private static final int OPERATIONS = 1500;
    private static final int POSITIONS = 96;
    private static final int LONGEST = 6;
    private static final long FAR_AWAY = 1L << 40;

    private final CountedBuffers buffers = new CountedBuffers();

    /** A map and what it should hold. */
    private static final class Pair {
        private final OffHeapRangeMap map;
        private final RangeModel model;

        Pair(int sectorSize, boolean wide) {
            map = OffHeapRangeMap.create(6, sectorSize);
            model = new RangeModel(sectorSize);
            if (wide) {
                map.insert(FAR_AWAY, sectorSize, location(Location.EMPTY));
                model.insert(new Range(FAR_AWAY, sectorSize, Location.EMPTY, Range.NO_BUFFER));
            }
        }
    }

    // With sectors of 1 byte all requests are aligned; with 8 some are not. Negative file offsets
    // in a wide map make every insert look at its neighbours.
    @ParameterizedTest
    @CsvSource({"1, 0, false", "1, 0, true", "8, 0, false", "8, -100000, true"})
    void mapsAgreeWithTheModelAfterEveryOperation(
            int sectorSize, int firstFileOffset, boolean wide) throws Exception {
        Random random = new Random(SEED + sectorSize + firstFileOffset);
        Pair[] pairs = {new Pair(sectorSize, wide), new Pair(sectorSize, wide)};
        for (int i = 0; i < OPERATIONS; i++) {
            String operation = InThread.call(
                    () -> step(pairs, random, sectorSize, firstFileOffset, wide));
            try {
                compare(pairs[0], random);
                compare(pairs[1], random);
            } catch (AssertionError e) {
                throw new AssertionError("skiplist.test.seed=" + SEED + ", operation " + i + ": "
                        + operation, e);
            }
        }
        pairs[0].map.close();
        pairs[1].map.close();
        assertEquals(0, buffers.inUse());
    }

    private String step(Pair[] pairs, Random random, int sectorSize, int firstFileOffset,
            boolean wide) {
        int target = random.nextInt(pairs.length);
        OffHeapRangeMap map = pairs[target].map;
        RangeModel model = pairs[target].model;
        long offset = random.nextInt(POSITIONS) - POSITIONS / 2;
        int len = 1 + random.nextInt(LONGEST);
        if (random.nextInt(3) > 0) {
            offset *= sectorSize;
            len *= sectorSize;
        }
        List<Range> near = model.find(offset - 1, len + 2);
        Location at = new Location(
                false, (byte) (199 + random.nextInt(2)), firstFileOffset, 1, random.nextInt(2));
        if (random.nextInt(8) == 0) {
            at = Location.EMPTY;
        } else if (!near.isEmpty() && random.nextBoolean()) {
            Range other = near.get(random.nextInt(near.size()));
            at = other.location().plus(offset - other.start(), sectorSize).withType(false);
        }
        int choice = random.nextInt(100);
        if (choice < 45) {
            map.insert(offset, len, location(at));
            model.insert(new Range(offset, len, at, Range.NO_BUFFER));
            return "insert " + offset + " " + len + " " + at;
        }
        if (choice < 65) {
            if (at.major() == -1) {
                return "nothing";
            }
            long id = random.nextInt(Integer.MAX_VALUE) + 1L;
            ByteBuf buffer = buffers.allocator().buffer(len).writeBytes(bytes(offset, len, id));
            map.insert(offset, len, location(at), buffer);
            buffer.release();
            model.insert(new Range(offset, len, at.withType(true), id));
            return "insert with buffer " + offset + " " + len + " " + at;
        }
        if (choice < 80) {
            Location to = random.nextInt(4) == 0 ? Location.EMPTY : new Location(
                    false, (byte) 7, firstFileOffset + random.nextInt(1000), 1, 1);
            assertEquals(model.compareAndSet(new Range(offset, len, at, 0), to),
                    map.compareAndSet(offset, len, location(at), location(to)));
            return "compareAndSet " + offset + " " + len + " " + at + " " + to;
        }
        if (choice < 95) {
            assertEquals(model.compareAndRelease(new Range(offset, len, at, 0)),
                    map.compareAndRelease(offset, len, location(at)));
            return "compareAndRelease " + offset + " " + len + " " + at;
        }
        if (choice < 97) {
            assertEquals(model.release(), map.release());
            return "release";
        }
        if (choice < 98) {
            map.close();
            pairs[target] = new Pair(sectorSize, wide);
            return "close";
        }
        map.copyTo(pairs[1 - target].map);
        model.copyTo(pairs[1 - target].model);
        return "copyTo";
    }

    private static void compare(Pair pair, Random random) {
        List<Range> expected = pair.model.ranges();
        List<Range> found = new ArrayList<>();
        pair.map.forEach((offset, len, number, fileOffset, major, minor, visited) -> {
            Range model = found.size() < expected.size() ? expected.get(found.size()) : null;
            ByteBuf buffer = visited.buffer();
            long id = buffer == null || model == null ? Range.NO_BUFFER : model.writeId();
            found.add(new Range(offset, len, new Location(visited.isMemoryType(), (byte) number,
                    fileOffset, major, minor), id));
            if (id != Range.NO_BUFFER) {
                byte[] bytes = new byte[buffer.readableBytes()];
                buffer.readBytes(bytes);
                assertArrayEquals(bytes(offset, len, id), bytes);
            }
        });
        assertEquals(expected, found);
        pair.map.checkInvariants();
        assertEquals(pair.model.size(), pair.map.size());
        assertEquals(pair.model.validLen(), pair.map.coveredBytes());
        assertEquals(pair.model.rawLen(), pair.map.insertedBytes());
        assertEquals(pair.model.rawCount(), pair.map.insertCount());
        long position = random.nextInt(20 * POSITIONS) - 10 * POSITIONS;
        assertEquals(expected.stream().filter(range -> range.start() <= position)
                .reduce((a, b) -> b).map(Range::start), start(pair.map.floor(position)));
        assertEquals(expected.stream().filter(range -> range.start() >= position)
                .findFirst().map(Range::start), start(pair.map.ceiling(position)));
        assertEquals(pair.model.find(position, LONGEST).stream().map(Range::start).toList(),
                pair.map.ranges(position, LONGEST).stream().map(MappedRange::offset).toList());
    }

    private static Optional<Long> start(Optional<MappedRange> range) {
        return range.map(MappedRange::offset);
    }

    private static FileLocation location(Location at) {
        return new FileLocation(
                Byte.toUnsignedInt(at.number()), at.offset(), at.major(), at.minor());
    }

    /** Bytes that follow from their position and the write. */
    private static byte[] bytes(long offset, int len, long id) {
        byte[] bytes = new byte[len];
        for (int i = 0; i < len; i++) {
            bytes[i] = (byte) (id * 31 + offset + i);
        }
        return bytes;
    }
}
