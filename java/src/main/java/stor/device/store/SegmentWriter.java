package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import stor.device.skiplist.FileLocation;

/**
 * Appends batches of frames to one open segment after another; a batch lies in one segment. One
 * thread at a time.
 *
 * <pre>
 *   room, next, append --&gt; force --&gt; [the journal has it] --&gt; keep
 *                  \          \               \
 *                   +----------+-- takeBack    +-- finish: it may have it, or not
 * </pre>
 *
 * <p>What fails ends its segment: no place in a file is ever written twice, so that no frame can be
 * taken for a later one.
 */
final class SegmentWriter {
    private final Disk disk;
    private final SegmentFiles files;
    private final Frames frames;
    private final StoreSettings settings;
    private Segment open;
    private boolean named;
    private int kept;
    private int position;

    SegmentWriter(Disk disk, SegmentFiles files, Frames frames, StoreSettings settings) {
        this.disk = disk;
        this.files = files;
        this.frames = frames;
        this.settings = settings;
    }

    /** Gives how many logical bytes the next batch may hold, at least one sector. */
    int room() throws IOException {
        if (open != null && framesLeft() == 0) {
            finish();
        }
        if (open == null) {
            open = files.create();
            named = false;
            kept = 0;
            position = 0;
        }
        return framesLeft() * settings.sectorSize();
    }

    /** Gives the place that the first frame of the next {@link #append} will have. */
    FileLocation next() {
        return SegmentFiles.place(open.id, position);
    }

    /** Writes frames. */
    void append(ByteBuffer batch) throws IOException {
        int length = batch.remaining();
        open.write(batch, position);
        position += length;
        files.noteAppended(open, length);
    }

    /** Makes what was appended last, and the name of its file. */
    void force() throws IOException {
        open.force();
        if (!named) {
            disk.forceNames();
            named = true;
        }
    }

    /** Ends the batch; from then on the file map may refer to it. */
    void keep() {
        kept = position;
    }

    /** Gives back the room of a batch that failed, and that nobody can know of. */
    void takeBack(Throwable failure) {
        Segment failed = open;
        finish();
        try {
            if (failed != null && kept == 0) {
                files.retire(failed);
                files.deleteGarbage();
            } else if (failed != null) {
                failed.truncate(kept);
                files.noteTruncated(failed, kept);
            }
        } catch (IOException e) {
            failure.addSuppressed(e);
        }
    }

    /** Ends the segment: nothing will be added to it, so it may go when nothing in it is live. */
    void finish() {
        if (open != null) {
            files.seal(open);
            open = null;
        }
    }

    private int framesLeft() {
        return (settings.segmentBytes() - position) / frames.frameLength();
    }
}
