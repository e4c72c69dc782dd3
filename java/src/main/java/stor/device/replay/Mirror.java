package stor.device.replay;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;

/**
 * What every sector should hold: the id of its last write, or 0 for zeros; and what it held when
 * the last snapshot was taken. Kept by pages of {@link #PAGE_SECTORS} sectors, outside the heap.
 * Only pages that were ever read or written take memory, 152 bytes each and as much again if they
 * have changed since the snapshot.
 *
 * <p>A page is found by a hash of its number. If a sample is enough, only the pages whose hash is
 * a multiple of {@link #SAMPLE} are kept and checked, and all counts are estimates from them. Ids
 * are positive. Not safe for use by several threads.
 */
final class Mirror implements AutoCloseable {
    static final int PAGE_SECTORS = 16;
    /** One page in so many is in a sample. */
    static final int SAMPLE = 16;

    // A page: its number; its copy for the snapshot, if any; its sectors.
    private static final int COPY = 1;
    private static final int SECTORS = 2;
    private static final int PAGE_LONGS = SECTORS + PAGE_SECTORS;
    private static final long TOUCHED = Long.MIN_VALUE;

    private static final long ABSENT = -1;
    private static final long NOT_IN_SAMPLE = -2;

    private final Path folder;
    private final int sectorSize;
    private final long seed;
    private final boolean sampled;
    private final LongFile pages;
    private final LongFile copies;
    private LongFile index;
    private long slots = 1 << 16;
    private long pageCount;
    /** Copies below this one are of earlier snapshots. */
    private long firstCopy = 1;
    private long copyCount = 1;
    private long touched;
    private long live;
    private long written;
    private long overwritten;
    private final byte[] expected;

    /** What reads a range of the device. */
    interface Source {
        byte[] read(long offset, int length) throws IOException;
    }

    /** What is told how much was checked, page by page. */
    interface Watcher {
        void checked(long pages, long ofPages);
    }

    Mirror(Path folder, int sectorSize, long seed, boolean sampled) throws IOException {
        this.folder = folder;
        this.sectorSize = sectorSize;
        this.seed = seed;
        this.sampled = sampled;
        expected = new byte[sectorSize];
        pages = new LongFile(folder);
        copies = new LongFile(folder);
        index = new LongFile(folder);
        index.grow(slots);
    }

    /** Gives what to fill the sectors of a write with. Two runs do not write the same bytes. */
    static long patternOf(long writeId, long seed) {
        return seed << 40 ^ writeId;
    }

    /** Notes that sectors were written. */
    void write(long offset, int length, long writeId) throws IOException {
        for (long at = offset; at < offset + length; at += sectorSize) {
            long page = change(at);
            if (page >= 0) {
                long sector = sector(page, at);
                long before = pages.get(sector);
                touched += before < 0 ? 0 : 1;
                written++;
                if (id(before) == 0) {
                    live++;
                } else {
                    overwritten++;
                }
                pages.set(sector, writeId | TOUCHED);
            }
        }
    }

    /** Notes that sectors were discarded: zeros are to be read. */
    void discard(long offset, long length) throws IOException {
        long first = offset / pageBytes();
        long last = (offset + length - 1) / pageBytes();
        if (last - first < pageCount) {
            for (long number = first; number <= last; number++) {
                discard(find(number), offset, offset + length);
            }
        } else {
            for (long page = 0; page < pageCount; page++) {
                discard(page, offset, offset + length);
            }
        }
    }

    /** Compares what was read with what should be there; gives the bytes that were compared. */
    long check(String where, long offset, byte[] bytes) throws IOException {
        long checked = 0;
        for (long at = offset; at < offset + bytes.length; at += sectorSize) {
            long page = make(at / pageBytes());
            if (page >= 0) {
                long sector = sector(page, at);
                long content = pages.get(sector);
                if (content >= 0) {
                    touched++;
                    pages.set(sector, content | TOUCHED);
                }
                check(where, at, bytes, (int) (at - offset), id(content));
                checked += sectorSize;
            }
        }
        return checked;
    }

    /** Reads all pages and compares them; gives the bytes that were compared. */
    long checkAll(Source device, Watcher watcher) throws IOException {
        for (long page = 0; page < pageCount; page++) {
            watcher.checked(page, pageCount);
            checkPage("device", device, pages, page * PAGE_LONGS, pages.get(page * PAGE_LONGS));
        }
        return pageCount * pageBytes();
    }

    /** Remembers what all sectors hold now, in the place of what was remembered before. */
    void takeSnapshot() {
        // The places of copies are used again, their numbers are not.
        firstCopy = copyCount;
    }

    /**
     * Reads pages of a snapshot and compares them: all that have changed since, and of the others
     * {@code most} at most. Gives the bytes that were compared.
     */
    long checkSnapshot(Source snapshot, long most, Watcher watcher) throws IOException {
        long step = Math.max(1, pageCount / Math.max(1, most));
        long checked = 0;
        for (long page = 0; page < pageCount; page++) {
            watcher.checked(page, pageCount);
            long number = pages.get(page * PAGE_LONGS);
            long copy = pages.get(page * PAGE_LONGS + COPY);
            if (copy >= firstCopy) {
                checkPage("snapshot", snapshot, copies, place(copy), number);
            } else if (page % step == 0) {
                checkPage("snapshot", snapshot, pages, page * PAGE_LONGS, number);
            } else {
                continue;
            }
            checked += pageBytes();
        }
        return checked;
    }

    /** Counts the sectors that were ever read or written. */
    long touchedSectors() {
        return touched * scale();
    }

    /** Counts the sectors that hold data. */
    long liveSectors() {
        return live * scale();
    }

    /** Counts the sectors that were written, each as often as that happened. */
    long writtenSectors() {
        return written * scale();
    }

    /** Counts how often a sector was written that held data. */
    long overwrittenSectors() {
        return overwritten * scale();
    }

    @Override
    public void close() throws IOException {
        pages.close();
        copies.close();
        index.close();
    }

    private void discard(long page, long from, long to) throws IOException {
        if (page < 0) {
            return;
        }
        long start = pages.get(page * PAGE_LONGS) * pageBytes();
        for (long at = Math.max(start, from); at < Math.min(start + pageBytes(), to);
                at += sectorSize) {
            long sector = sector(page, at);
            long content = pages.get(sector);
            if (id(content) != 0) {
                keepForSnapshot(page);
                live--;
                pages.set(sector, content & TOUCHED);
            }
        }
    }

    private void checkPage(String where, Source source, LongFile file, long place, long number)
            throws IOException {
        long offset = number * pageBytes();
        byte[] bytes = source.read(offset, (int) pageBytes());
        for (int i = 0; i < PAGE_SECTORS; i++) {
            check(where, offset + (long) i * sectorSize, bytes, i * sectorSize,
                    id(file.get(place + SECTORS + i)));
        }
    }

    private void check(String where, long offset, byte[] bytes, int at, long id) {
        Pattern.fill(expected, 0, sectorSize, offset, id == 0 ? 0 : patternOf(id, seed));
        int wrong = Arrays.mismatch(bytes, at, at + sectorSize, expected, 0, sectorSize);
        if (wrong >= 0) {
            throw new Difference(where + ": sector at offset " + offset + ", byte " + wrong
                    + ", last write " + id, bytes[at + wrong], expected[wrong]);
        }
    }

    /** Finds or makes the page of a position that is about to change; -1 if not in the sample. */
    private long change(long offset) throws IOException {
        long page = make(offset / pageBytes());
        if (page >= 0) {
            keepForSnapshot(page);
        }
        return page;
    }

    private void keepForSnapshot(long page) throws IOException {
        long at = page * PAGE_LONGS;
        if (pages.get(at + COPY) >= firstCopy) {
            return;
        }
        long copy = copyCount++;
        long to = place(copy);
        copies.grow(to + PAGE_LONGS);
        for (int i = 0; i < PAGE_LONGS; i++) {
            copies.set(to + i, pages.get(at + i));
        }
        pages.set(at + COPY, copy);
    }

    private long place(long copy) {
        return (copy - firstCopy) * PAGE_LONGS;
    }

    // --- Finding pages ---------------------------------------------------------------------------

    private long make(long number) throws IOException {
        long page = find(number);
        if (page != ABSENT) {
            return page;
        }
        if (2 * pageCount >= slots) {
            rehash();
        }
        long at = pageCount * PAGE_LONGS;
        pages.grow(at + PAGE_LONGS);
        pages.set(at, number);
        index.set(slot(number), pageCount + 1);
        return pageCount++;
    }

    private long find(long number) {
        if (sampled && hash(number) % SAMPLE != 0) {
            return NOT_IN_SAMPLE;
        }
        return index.get(slot(number)) - 1;
    }

    /** Finds the slot of a page, or the one that it would get. */
    private long slot(long number) {
        long slot = hash(number) / SAMPLE % slots;
        for (long page = index.get(slot); page != 0; page = index.get(slot)) {
            if (pages.get((page - 1) * PAGE_LONGS) == number) {
                return slot;
            }
            slot = (slot + 1) % slots;
        }
        return slot;
    }

    private void rehash() throws IOException {
        index.close();
        slots *= 2;
        index = new LongFile(folder);
        index.grow(slots);
        for (long page = 0; page < pageCount; page++) {
            index.set(slot(pages.get(page * PAGE_LONGS)), page + 1);
        }
    }

    private static long hash(long number) {
        long mixed = number * 0x9E3779B97F4A7C15L;
        mixed = (mixed ^ mixed >>> 29) * 0xBF58476D1CE4E5B9L;
        return (mixed ^ mixed >>> 32) >>> 1;
    }

    private long sector(long page, long offset) {
        return page * PAGE_LONGS + SECTORS + offset / sectorSize % PAGE_SECTORS;
    }

    private static long id(long content) {
        return content & ~TOUCHED;
    }

    private long pageBytes() {
        return (long) PAGE_SECTORS * sectorSize;
    }

    private int scale() {
        return sampled ? SAMPLE : 1;
    }
}
