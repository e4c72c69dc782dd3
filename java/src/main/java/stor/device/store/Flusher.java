package stor.device.store;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.function.Consumer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.Visited;
import stor.device.store.BlockStore.Step;

/**
 * The way of what is buffered to the disk:
 *
 * <ol>
 * <li>The active map is frozen. What it has is noted: holes and pieces of data.
 * <li>The holes are committed. They need no room, and give some back: so they go first.
 * <li>Batch by batch, as much data as a segment has room for: frames are appended and forced; where
 * they lie is committed; then buffers all of whose bytes have got that far are given back.
 * <li>The frozen map is dropped.
 * </ol>
 *
 * <p>A failure leaves the frozen map, and the next flush goes on with the batch that failed. A
 * buffer that somebody else has released holds up nothing: its sectors become damaged ones, all else
 * is written, and then the flush fails. One thread at a time.
 */
final class Flusher {
    private static final int BATCH_BYTES = 4 << 20;

    private final Object index;
    private final WriteBuffer buffer;
    private final FileMap fileMap;
    private final SegmentWriter writer;
    private final Reserve reserve;
    private final Frames frames;
    private final int sectorSize;
    private Consumer<Step> onStep = step -> { };
    private long flushes;

    // What is left of the frozen map, once it has been noted.
    private boolean noted;
    private List<Change> holes = List.of();
    private final Deque<Piece> pieces = new ArrayDeque<>();
    private long left;
    private long newest;
    // The first buffer that was not what it should be, until that has been told.
    private IllegalStateException misused;

    /** A buffered range on its way to a file. */
    private static final class Piece {
        private final long offset;
        private final int length;
        private final FileLocation id;
        private final ByteBuf bytes;
        private int done;

        Piece(long offset, int length, FileLocation id, ByteBuf bytes) {
            this.offset = offset;
            this.length = length;
            this.id = id;
            this.bytes = bytes;
        }
    }

    Flusher(Object index, WriteBuffer buffer, FileMap fileMap, SegmentWriter writer,
            Reserve reserve, Frames frames, int sectorSize) {
        this.index = index;
        this.buffer = buffer;
        this.fileMap = fileMap;
        this.writer = writer;
        this.reserve = reserve;
        this.frames = frames;
        this.sectorSize = sectorSize;
    }

    void onStep(Consumer<Step> callback) {
        onStep = callback;
    }

    /** Counts the flushes that came to their end. The index lock is held. */
    long flushes() {
        return flushes;
    }

    /** Writes out all that was buffered when it began; gives the bytes written. */
    long flush() throws IOException {
        // What an earlier flush has left behind is older, and so goes first.
        long written = buffer.frozen() == null ? 0 : writeOut();
        boolean more;
        synchronized (index) {
            more = buffer.freeze();
        }
        written += more ? writeOut() : 0;
        if (misused != null) {
            IllegalStateException failure = misused;
            misused = null;
            throw failure;
        }
        return written;
    }

    /** Notes what the frozen map has; all of it, or nothing if there is no room to note it. */
    private void note() {
        List<Change> found = new ArrayList<>();
        try {
            note(buffer.frozen(), found);
        } catch (RuntimeException | Error failure) {
            close();
            throw failure;
        }
        holes = found;
        noted = true;
    }

    private void note(OffHeapRangeMap frozen, List<Change> found) {
        newest = 0;
        left = 0;
        frozen.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
            if (Holes.isHole(majorVer, minorVer)) {
                found.add(Change.discarded(offset, len));
            } else {
                pieces.add(new Piece(offset, len,
                        new FileLocation(number, fileOffset, majorVer, minorVer), retain(range)));
                left += len;
                newest = Math.max(newest,
                        (long) majorVer << Integer.SIZE | Integer.toUnsignedLong(minorVer));
            }
        });
    }

    /** Gives the buffer of a range; without any bytes, if somebody else has released it. */
    private static ByteBuf retain(Visited range) {
        try {
            return range.retainedBuffer();
        } catch (RuntimeException released) {
            return Unpooled.EMPTY_BUFFER;
        }
    }

    private long writeOut() throws IOException {
        if (!noted) {
            synchronized (index) {
                note();
            }
        }
        onStep.accept(Step.FLUSH_BEGUN);
        fileMap.commit(holes, 0);
        holes = List.of();
        long written = 0;
        while (!pieces.isEmpty()) {
            written += writeBatch();
        }
        synchronized (index) {
            noted = false;
            flushes++;
            try {
                buffer.drop();
            } catch (RuntimeException failure) {
                noteMisused("a buffer", failure);
            }
        }
        return written;
    }

    private int writeBatch() throws IOException {
        List<Change> changes = new ArrayList<>();
        int length;
        try {
            reserve.require();
            length = append(changes);
            onStep.accept(Step.APPENDED);
            writer.force();
        } catch (IOException | RuntimeException | Error failure) {
            writer.takeBack(failure);
            throw failure;
        }
        try {
            fileMap.commit(changes, newest);
        } catch (IOException | RuntimeException | Error failure) {
            // The journal may have it all the same.
            writer.finish();
            throw failure;
        }
        writer.keep();
        giveBack(length);
        onStep.accept(Step.PUBLISHED);
        return length;
    }

    /** Appends as many of the next bytes as fit; says where they lie, and how many they are. */
    private int append(List<Change> changes) throws IOException {
        int room = Math.min(writer.room(), BATCH_BYTES / sectorSize * sectorSize);
        FileLocation first = writer.next();
        ByteBuffer batch = ByteBuffer.allocate(frames.framedLength(
                (int) Math.min(room, left)));
        int length = 0;
        for (Piece piece : pieces) {
            int next = Math.min(piece.length - piece.done, room - length);
            if (next == 0) {
                break;
            }
            long offset = piece.offset + piece.done;
            FileLocation place = first.plus(length, sectorSize);
            frame(piece, next, place, batch);
            changes.add(Change.written(offset, next, place));
            length += next;
        }
        writer.append(batch.flip());
        return length;
    }

    private void frame(Piece piece, int length, FileLocation place, ByteBuffer batch) {
        long offset = piece.offset + piece.done;
        int start = batch.position();
        try {
            frames.frame(
                    piece.bytes, piece.done, length, piece.id.minorVer(), offset, place, batch);
        } catch (RuntimeException released) {
            frames.spoil(length, offset, place, batch.position(start));
            noteMisused("the sectors from " + offset + " to " + (offset + length)
                    + " are lost: their buffer", released);
        }
    }

    private void noteMisused(String what, RuntimeException failure) {
        if (misused == null) {
            misused = new IllegalStateException("flush: " + what + ": " + failure
                    + " (expected: one that nobody else releases)", failure);
        }
    }

    /** Gives back the buffers of the next bytes, which the file map knows now. */
    private void giveBack(int length) {
        left -= length;
        for (int more = length; more > 0;) {
            Piece piece = pieces.getFirst();
            int next = Math.min(piece.length - piece.done, more);
            piece.done += next;
            more -= next;
            if (piece.done == piece.length) {
                giveBack(pieces.removeFirst());
            }
        }
    }

    private void giveBack(Piece piece) {
        try {
            try {
                synchronized (index) {
                    buffer.frozen().compareAndRelease(piece.offset, piece.length, piece.id);
                }
            } finally {
                piece.bytes.release();
            }
        } catch (RuntimeException failure) {
            noteMisused("the buffer at " + piece.offset, failure);
        }
    }

    /** Gives back what is left of a flush that failed. */
    void close() {
        List<Piece> taken = List.copyOf(pieces);
        pieces.clear();
        Thoroughly.forEach(taken, piece -> piece.bytes.release());
    }
}
