package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.util.Arrays;
import java.util.Random;

/**
 * Random operations on a map of a few sectors, each followed by a comparison of the whole map with
 * a model that holds every sector on its own, and so knows nothing of ranges that are cut or
 * joined. The same seed makes the same operations.
 */
final class Verification implements AutoCloseable {
    private static final int HEIGHT = 6;
    private static final int SECTOR_SIZE = 64;
    private static final int SECTORS = 128;
    private static final int LONGEST = 8;
    // Reaches into negative offsets.
    private static final long BASE = -(SECTORS / 2L) * SECTOR_SIZE;

    private final Random random;
    private final Sector[] sectors = new Sector[SECTORS];
    private OffHeapRangeMap map = OffHeapRangeMap.create(HEIGHT, SECTOR_SIZE);
    private long writes;
    private String description = "none";

    /**
     * What is known of a sector.
     *
     * @param place where it lies
     * @param memoryType whether it was inserted with a buffer
     * @param write says what bytes it has if it still holds a buffer, otherwise 0
     * @param piece is shared by those neighbours that have one buffer
     */
    private record Sector(FileLocation place, boolean memoryType, long write, long piece) {
        Sector withoutBuffer() {
            return new Sector(place, memoryType, 0, piece);
        }
    }

    Verification(long seed) {
        random = new Random(seed);
    }

    /** Says what the last operation was. */
    String description() {
        return description;
    }

    /** Gives the map, which lasts until the next step. */
    OffHeapRangeMap map() {
        return map;
    }

    /** Does one operation. */
    void step() {
        int start = random.nextInt(SECTORS);
        int count = 1 + random.nextInt(Math.min(LONGEST, SECTORS - start));
        int choice = random.nextInt(100);
        if (choice < 40) {
            insert(start, count, place(start));
        } else if (choice < 65) {
            insertWithBuffer(start, count, place(start));
        } else if (choice < 80) {
            compareAndSet(start, count, expectation(start, count), place(start));
        } else if (choice < 95) {
            compareAndRelease(start, count, expectation(start, count));
        } else if (choice < 97) {
            release();
        } else {
            moveToANewMap();
        }
    }

    /**
     * Compares everything.
     *
     * @throws AssertionError if there is a difference
     */
    void compare() {
        map.checkInvariants();
        int[] next = new int[1];
        map.forEach((offset, len, number, fileOffset, major, minor, range) -> {
            int start = (int) ((offset - BASE) / SECTOR_SIZE);
            requireUnmapped(next[0], start);
            FileLocation place = new FileLocation(number, fileOffset, major, minor);
            ByteBuf buffer = range.buffer();
            for (int i = 0; i < len / SECTOR_SIZE; i++) {
                compareSector(start + i, place.plus((long) i * SECTOR_SIZE, SECTOR_SIZE),
                        range.isMemoryType(), buffer);
            }
            next[0] = start + len / SECTOR_SIZE;
        });
        requireUnmapped(next[0], SECTORS);
    }

    @Override
    public void close() {
        map.close();
    }

    private void insert(int start, int count, FileLocation place) {
        describe("insert", start, count, place);
        map.insert(offset(start), count * SECTOR_SIZE, place);
        fill(start, count, place, false, 0);
    }

    private void insertWithBuffer(int start, int count, FileLocation place) {
        describe("insert with buffer", start, count, place);
        long write = ++writes;
        ByteBuf buffer = Unpooled.directBuffer(count * SECTOR_SIZE);
        try {
            for (int i = 0; i < count; i++) {
                buffer.writeBytes(bytes(start + i, write));
            }
            map.insert(offset(start), count * SECTOR_SIZE, place, buffer);
        } finally {
            buffer.release();
        }
        fill(start, count, place, true, write);
    }

    private void fill(
            int start, int count, FileLocation place, boolean memoryType, long write) {
        for (int i = 0; i < count; i++) {
            sectors[start + i] = new Sector(
                    place.plus((long) i * SECTOR_SIZE, SECTOR_SIZE), memoryType, write, write);
        }
    }

    private void compareAndSet(
            int start, int count, FileLocation expected, FileLocation replacement) {
        describe("compareAndSet", start, count, expected);
        boolean matched = false;
        for (int i = 0; i < count; i++) {
            long skip = (long) i * SECTOR_SIZE;
            Sector sector = sectors[start + i];
            if (sector != null && !sector.memoryType()
                    && sector.place().equals(expected.plus(skip, SECTOR_SIZE))) {
                matched = true;
                sectors[start + i] =
                        new Sector(replacement.plus(skip, SECTOR_SIZE), false, 0, 0);
            }
        }
        require(matched, map.compareAndSet(
                offset(start), count * SECTOR_SIZE, expected, replacement));
    }

    private void compareAndRelease(int start, int count, FileLocation expected) {
        describe("compareAndRelease", start, count, expected);
        long released = 0;
        int from = start;
        while (from < start + count) {
            int to = from + 1;
            while (to < start + count && isOnePiece(to - 1, to)) {
                to++;
            }
            boolean whole = !isOnePiece(from - 1, from) && !isOnePiece(to - 1, to);
            FileLocation there = expected.plus((long) (from - start) * SECTOR_SIZE, SECTOR_SIZE);
            if (whole && isBuffered(from) && sectors[from].place().equals(there)) {
                for (int i = from; i < to; i++) {
                    sectors[i] = sectors[i].withoutBuffer();
                }
                released += (long) (to - from) * SECTOR_SIZE;
            }
            from = to;
        }
        require(released, map.compareAndRelease(offset(start), count * SECTOR_SIZE, expected));
    }

    private void release() {
        description = "release";
        long released = 0;
        for (int i = 0; i < SECTORS; i++) {
            if (isBuffered(i)) {
                sectors[i] = sectors[i].withoutBuffer();
                released += SECTOR_SIZE;
            }
        }
        require(released, map.release());
    }

    private void moveToANewMap() {
        description = "copyTo and close";
        OffHeapRangeMap copy = OffHeapRangeMap.create(HEIGHT, SECTOR_SIZE);
        try {
            map.copyTo(copy);
        } finally {
            map.close();
            map = copy;
        }
    }

    private void compareSector(int index, FileLocation place, boolean memoryType, ByteBuf buffer) {
        Sector expected = sectors[index];
        if (expected == null) {
            throw difference("sector " + index, "nothing", place);
        }
        Sector found = new Sector(place, memoryType,
                buffer == null ? 0 : expected.write(), expected.piece());
        if (!found.equals(expected) || isBuffered(index) != (buffer != null)) {
            throw difference("sector " + index, expected, found + " with " + buffer);
        }
        if (buffer != null) {
            byte[] bytes = new byte[SECTOR_SIZE];
            buffer.readBytes(bytes);
            if (!Arrays.equals(bytes(index, expected.write()), bytes)) {
                throw difference("sector " + index, "the bytes of write " + expected.write(),
                        Arrays.toString(bytes));
            }
        }
    }

    private void requireUnmapped(int from, int to) {
        for (int i = from; i < to; i++) {
            if (sectors[i] != null) {
                throw difference("sector " + i, sectors[i], "nothing");
            }
        }
    }

    private boolean isOnePiece(int left, int right) {
        return left >= 0 && right < SECTORS && sectors[left] != null && sectors[right] != null
                && sectors[left].piece() != 0 && sectors[left].piece() == sectors[right].piece();
    }

    private boolean isBuffered(int index) {
        return sectors[index] != null && sectors[index].write() != 0;
    }

    /** Gives a place in line with all others of its file, so that neighbours join, or a new one. */
    private FileLocation place(int start) {
        int number = 199 + random.nextInt(2);
        FileLocation file = new FileLocation(number, 1 << 20, random.nextInt(2), 7);
        return random.nextInt(4) == 0
                ? new FileLocation(number, random.nextInt(1 << 20), 2, 7)
                : file.plus((long) start * SECTOR_SIZE, SECTOR_SIZE);
    }

    /** Gives what makes some sector of a run match, or something that follows from none. */
    private FileLocation expectation(int start, int count) {
        int other = start + random.nextInt(count);
        return sectors[other] == null || random.nextInt(8) == 0
                ? place(start)
                : sectors[other].place().plus((long) (start - other) * SECTOR_SIZE, SECTOR_SIZE);
    }

    private void describe(String operation, int start, int count, FileLocation place) {
        description = operation + " of " + count + " sectors from " + start + " at " + place;
    }

    private static long offset(int sector) {
        return BASE + (long) sector * SECTOR_SIZE;
    }

    private static byte[] bytes(int sector, long write) {
        byte[] bytes = new byte[SECTOR_SIZE];
        Arrays.fill(bytes, (byte) (write * 31 + sector));
        return bytes;
    }

    private static void require(Object expected, Object found) {
        if (!expected.equals(found)) {
            throw difference("result", expected, found);
        }
    }

    private static AssertionError difference(String subject, Object expected, Object found) {
        return new AssertionError(subject + ": " + found + " (expected: " + expected + ")");
    }
}
