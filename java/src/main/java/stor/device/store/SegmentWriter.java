package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.List;
import stor.device.skiplist.FileLocation;

/** Appends frames to one open segment after another. One thread at a time. */
final class SegmentWriter {
    private final SegmentFiles files;
    private final Sectors sectors;
    private final StoreSettings settings;
    private final List<Segment> full = new ArrayList<>();
    private Segment open;
    private int position;

    SegmentWriter(SegmentFiles files, Sectors sectors, StoreSettings settings) {
        this.files = files;
        this.sectors = sectors;
        this.settings = settings;
    }

    /** Gives how many logical bytes the next {@link #append} may hold, at least one sector. */
    int room() throws IOException {
        if (open == null || frames() == 0) {
            Segment next = files.create();
            if (open != null) {
                full.add(open);
            }
            open = next;
            position = 0;
        }
        return frames() * settings.sectorSize();
    }

    /** Writes frames, for no more than {@link #room()} logical bytes, and says where they lie. */
    FileLocation append(ByteBuffer frames) throws IOException {
        FileLocation place = new FileLocation(open.number, position, open.generation, 0);
        int length = frames.remaining();
        position += length;
        open.write(frames, place.offset());
        files.noteAppended(open, length);
        return place;
    }

    /**
     * Seals the segments that are full. To be called when the file map knows all that was appended
     * and is worth keeping: from then on a segment in which nothing is live may go.
     */
    void sealFull() {
        full.forEach(files::seal);
        full.clear();
    }

    /** Seals the open segment, too. */
    void finish() {
        if (open != null) {
            full.add(open);
            open = null;
        }
        sealFull();
    }

    private int frames() {
        return (settings.segmentBytes() - position) / sectors.frameLength();
    }
}
