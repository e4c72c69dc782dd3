package stor.device.replay;

import java.util.Arrays;
import java.util.SortedMap;
import java.util.TreeMap;

/**
 * What every sector should hold: the id of its last write, or 0 for zeros. Takes memory for
 * those parts of the device only that were ever written.
 */
final class Mirror {
    static final int PAGE_SECTORS = 4096;

    private final int sectorSize;
    private final SortedMap<Long, long[]> pages;

    Mirror(int sectorSize) {
        this(sectorSize, new TreeMap<>());
    }

    private Mirror(int sectorSize, SortedMap<Long, long[]> pages) {
        this.sectorSize = sectorSize;
        this.pages = pages;
    }

    /** Notes that sectors were written, or discarded if the id is 0. */
    void set(long offset, int length, long writeId) {
        long first = offset / sectorSize;
        for (long sector = first; sector < first + length / sectorSize; sector++) {
            page(sector)[(int) (sector % PAGE_SECTORS)] = writeId;
        }
    }

    /** Compares what was read with what should be there. */
    void check(String where, long offset, byte[] bytes) {
        byte[] expected = new byte[bytes.length];
        for (int at = 0; at < bytes.length; at += sectorSize) {
            Pattern.fill(expected, at, sectorSize, offset + at, writeAt(offset + at));
        }
        int at = Arrays.mismatch(bytes, expected);
        if (at >= 0) {
            long sector = (offset + at) / sectorSize * sectorSize;
            throw new Difference(where + ": sector at offset " + sector + ", byte "
                    + (offset + at - sector) + ", last write " + Long.toHexString(writeAt(sector)),
                    bytes[at], expected[at]);
        }
    }

    Mirror copy() {
        SortedMap<Long, long[]> copies = new TreeMap<>();
        pages.forEach((number, page) -> copies.put(number, page.clone()));
        return new Mirror(sectorSize, copies);
    }

    /** Gives the offsets of all pages, each of {@link #PAGE_SECTORS} sectors, in order. */
    long[] pageOffsets() {
        return pages.keySet().stream()
                .mapToLong(number -> number * PAGE_SECTORS * sectorSize).toArray();
    }

    /** Counts the sectors that hold data. */
    long liveSectors() {
        return pages.values().stream().flatMapToLong(Arrays::stream).filter(n -> n != 0).count();
    }

    private long writeAt(long offset) {
        long sector = offset / sectorSize;
        long[] page = pages.get(sector / PAGE_SECTORS);
        return page == null ? 0 : page[(int) (sector % PAGE_SECTORS)];
    }

    private long[] page(long sector) {
        return pages.computeIfAbsent(sector / PAGE_SECTORS, number -> new long[PAGE_SECTORS]);
    }
}
