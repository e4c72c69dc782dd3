package stor.device.bench;

import java.util.concurrent.locks.ReadWriteLock;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/** A map for several threads: queries side by side, inserts alone. */
final class LockedRangeMap implements RangeMap {
    private final ReadWriteLock lock = new ReentrantReadWriteLock();
    private final RangeMap map;

    LockedRangeMap(RangeMap map) {
        this.map = map;
    }

    @Override
    public void insert(long offset, int length, FileLocation at) {
        lock.writeLock().lock();
        try {
            map.insert(offset, length, at);
        } finally {
            lock.writeLock().unlock();
        }
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        lock.readLock().lock();
        try {
            map.find(offset, length, visitor);
        } finally {
            lock.readLock().unlock();
        }
    }

    @Override
    public void forEach(Visitor visitor) {
        lock.readLock().lock();
        try {
            map.forEach(visitor);
        } finally {
            lock.readLock().unlock();
        }
    }
}
