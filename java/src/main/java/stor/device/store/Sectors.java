package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.zip.CRC32C;

/**
 * The layout of a segment file: frames, one after another, each a sector and its trailer.
 *
 * <pre>
 *   [ sector: 512 or 4096 bytes ][ CRC32C of the sector: 4 ][ low half of its sequence: 4 ]
 * </pre>
 *
 * <p>The trailer is why a place in a file advances by 8 bytes more with every whole sector, which
 * is what the maps reckon with.
 */
final class Sectors {
    static final int TRAILER_BYTES = 8;

    private final int sectorSize;

    Sectors(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    /** Gives how many bytes a number of logical bytes, whole sectors, takes in a file. */
    int framedLength(int length) {
        return length / sectorSize * frameLength();
    }

    int frameLength() {
        return sectorSize + TRAILER_BYTES;
    }

    /** Puts a trailer behind every sector of a part of a buffer, whose indices stay as they are. */
    ByteBuffer frame(ByteBuf sectors, int from, int length, int sequence) {
        ByteBuffer frames = ByteBuffer.allocate(framedLength(length));
        CRC32C checksum = new CRC32C();
        for (int at = from; at < from + length; at += sectorSize) {
            int start = frames.position();
            frames.limit(start + sectorSize);
            sectors.getBytes(sectors.readerIndex() + at, frames);
            frames.limit(frames.capacity());
            checksum.reset();
            checksum.update(frames.array(), start, sectorSize);
            frames.putInt((int) checksum.getValue()).putInt(sequence);
        }
        return frames.flip();
    }

    /** Checks every sector; the first that is damaged is named by its offset on the device. */
    void verify(ByteBuffer frames, long offset, Segment segment) throws IOException {
        CRC32C checksum = new CRC32C();
        for (int at = 0; at < frames.limit(); at += frameLength()) {
            checksum.reset();
            checksum.update(frames.array(), at, sectorSize);
            int found = (int) checksum.getValue();
            int stored = frames.getInt(at + sectorSize);
            if (found != stored) {
                throw new IOException(String.format(
                        "sector at offset %d, %s: CRC32C: %08x (expected: %08x)",
                        offset + (long) (at / frameLength()) * sectorSize, segment, found,
                        stored));
            }
        }
    }

    /** Copies the sectors of frames, without their trailers. */
    void unframe(ByteBuffer frames, byte[] bytes, int to) {
        int out = to;
        for (int at = 0; at < frames.limit(); at += frameLength()) {
            System.arraycopy(frames.array(), at, bytes, out, sectorSize);
            out += sectorSize;
        }
    }
}
