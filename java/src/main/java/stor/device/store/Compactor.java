package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.Deque;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.function.Consumer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.store.BlockStore.Step;

/**
 * Gives back the room of what was overwritten and discarded:
 *
 * <ol>
 * <li>Segments in which nothing is live are deleted. This needs no room.
 * <li>What is live in the emptiest others is copied, batch by batch: frames are read, proven,
 * appended and forced; then a commit redirects what has not been written anew meanwhile.
 * <li>The segments that this has emptied are deleted.
 * </ol>
 *
 * <p>When the disk is full, the reserve makes the room for step 2. Sectors that cannot be read stay
 * where they are, and with them their segments. One thread at a time.
 */
final class Compactor {
    private static final int BATCH_BYTES = 1 << 20;

    private final Object index;
    private final FileMap fileMap;
    private final SegmentFiles files;
    private final SegmentWriter writer;
    private final Frames frames;
    private final DamagedSectors damaged;
    private final Reserve reserve;
    private final int sectorSize;
    private Consumer<Step> onStep = step -> { };
    private int freedSegments;

    /** A run of sectors on the device and in a segment. */
    private record Run(long offset, int length, FileLocation place) {
    }

    Compactor(Object index, FileMap fileMap, SegmentFiles files, SegmentWriter writer,
            Frames frames, DamagedSectors damaged, Reserve reserve, int sectorSize) {
        this.index = index;
        this.fileMap = fileMap;
        this.files = files;
        this.writer = writer;
        this.frames = frames;
        this.damaged = damaged;
        this.reserve = reserve;
        this.sectorSize = sectorSize;
    }

    void onStep(Consumer<Step> callback) {
        onStep = callback;
    }

    /** Gives the segments that were let go. The index lock is held. */
    int freedSegments() {
        return freedSegments;
    }

    /**
     * Compacts.
     *
     * @param mostLive segments with more live bytes than this stay
     * @param enough how many live bytes are moved at most, but for the first segment
     * @return the bytes moved, whether or not they were still wanted at the end of the move
     */
    long compact(long mostLive, long enough) throws IOException {
        free();
        Deque<Run> left = findMovable(mostLive, enough);
        long[] moved = new long[1];
        while (!left.isEmpty()) {
            reserve.spend(() -> moved[0] += moveBatch(left));
        }
        free();
        reserve.refill();
        return moved[0];
    }

    // --- Step 1 and 3 ----------------------------------------------------------------------------

    /**
     * Frees what neither map nor journal refers to. No commit may come in between: one that fails
     * leaves a sealed segment that the journal may know and the map does not.
     */
    private void free() throws IOException {
        fileMap.whileSettled(map -> {
            Set<Long> live = Recovery.liveSegments(map);
            for (Segment segment : files.sealed()) {
                if (!live.contains(segment.id)) {
                    files.retire(segment);
                    freedSegments++;
                }
            }
        });
        files.deleteGarbage();
    }

    // --- Step 2 ----------------------------------------------------------------------------------

    /** Finds what is live in the emptiest segments, in the order of the device. */
    private Deque<Run> findMovable(long mostLive, long enough) {
        synchronized (index) {
            OffHeapRangeMap map = fileMap.map();
            damaged.keepIf((offset, place) -> map.ranges(offset, sectorSize).stream()
                    .anyMatch(range -> placeIn(range, offset).equals(place)));
            Set<Long> chosen = choose(map, mostLive, enough);
            Deque<Run> runs = new ArrayDeque<>();
            map.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                if (!Holes.isHole(majorVer, minorVer)
                        && chosen.contains(SegmentFiles.id(number, majorVer))) {
                    runs.add(new Run(offset, len,
                            new FileLocation(number, fileOffset, majorVer, minorVer)));
                }
            });
            return runs;
        }
    }

    private FileLocation placeIn(MappedRange range, long offset) {
        return range.location().plus(offset - range.offset(), sectorSize);
    }

    private Set<Long> choose(OffHeapRangeMap map, long mostLive, long enough) {
        Map<Long, Long> live = new HashMap<>();
        map.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
            if (!Holes.isHole(majorVer, minorVer)) {
                live.merge(SegmentFiles.id(number, majorVer), (long) len, Long::sum);
            }
        });
        // What cannot be read cannot be moved: a segment with nothing else is left alone.
        damaged.places().forEach(place ->
                live.merge(SegmentFiles.id(place), (long) -sectorSize, Long::sum));
        List<Long> candidates = files.sealed().stream().map(segment -> segment.id)
                .filter(id -> live.getOrDefault(id, 0L) > 0 && live.get(id) <= mostLive)
                .sorted(Comparator.comparing(live::get)).toList();
        Set<Long> chosen = new HashSet<>();
        long toMove = 0;
        for (long id : candidates) {
            toMove += live.get(id);
            if (toMove <= enough || chosen.isEmpty()) {
                chosen.add(id);
            }
        }
        return chosen;
    }

    /** Moves the next runs, as many as fit, and takes them off the list. */
    private long moveBatch(Deque<Run> left) throws IOException {
        List<Change> moves = new ArrayList<>();
        int taken;
        try {
            int room = Math.min(writer.room(), BATCH_BYTES / sectorSize * sectorSize);
            ByteBuffer batch = ByteBuffer.allocate(frames.framedLength(room));
            taken = copy(left, room, batch, moves);
            writer.append(batch.flip());
            onStep.accept(Step.COPIED);
            writer.force();
        } catch (IOException | RuntimeException | Error failure) {
            writer.takeBack(failure);
            throw failure;
        }
        try {
            fileMap.commit(moves, 0);
        } catch (IOException | RuntimeException | Error failure) {
            // The journal may have it all the same.
            writer.finish();
            throw failure;
        }
        writer.keep();
        take(left, taken);
        return moves.stream().mapToLong(Change::length).sum();
    }

    /** Copies the frames of the next runs; gives how many bytes of them were looked at. */
    private int copy(Deque<Run> left, int room, ByteBuffer batch, List<Change> moves) {
        int taken = 0;
        for (Run run : left) {
            int length = Math.min(run.length, room - taken);
            if (length == 0) {
                break;
            }
            copy(new Run(run.offset, length, run.place), batch, moves);
            taken += length;
        }
        return taken;
    }

    private void copy(Run run, ByteBuffer batch, List<Change> moves) {
        ByteBuffer found = ByteBuffer.allocate(frames.framedLength(run.length));
        Segment segment = files.pin(SegmentFiles.id(run.place));
        try {
            boolean readable = tryRead(segment, found, run.place);
            for (int at = 0; at < run.length; at += sectorSize) {
                long offset = run.offset + at;
                FileLocation from = run.place.plus(at, sectorSize);
                int start = frames.framedLength(at);
                if (!readable) {
                    found.limit(start + frames.frameLength()).position(start);
                }
                if ((readable || tryRead(segment, found, from))
                        && frames.isWhole(found, start, offset, from)) {
                    FileLocation to = writer.next().plus(
                            batch.position() / frames.frameLength() * sectorSize, sectorSize);
                    frames.move(found, start, offset, to, batch);
                    add(moves, Change.moved(offset, sectorSize, from, to));
                } else {
                    damaged.note(offset, from, "cannot be moved");
                }
            }
        } finally {
            files.unpin(segment);
        }
    }

    private boolean tryRead(Segment segment, ByteBuffer found, FileLocation place) {
        try {
            files.read(segment, found, place.offset());
            return true;
        } catch (IOException e) {
            return false;
        }
    }

    /** Adds a move, as part of the last one if it continues that. */
    private void add(List<Change> moves, Change next) {
        Change last = moves.isEmpty() ? null : moves.get(moves.size() - 1);
        if (last != null && last.offset() + last.length() == next.offset()
                && last.from().plus(last.length(), sectorSize).equals(next.from())) {
            moves.set(moves.size() - 1, Change.moved(last.offset(),
                    last.length() + next.length(), last.from(), last.to()));
        } else {
            moves.add(next);
        }
    }

    private void take(Deque<Run> left, int bytes) {
        for (int more = bytes; more > 0;) {
            Run run = left.removeFirst();
            int length = Math.min(run.length, more);
            more -= length;
            if (length < run.length) {
                left.addFirst(new Run(run.offset + length, run.length - length,
                        run.place.plus(length, sectorSize)));
            }
        }
    }
}
