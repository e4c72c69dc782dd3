package stor.device.bench;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.CyclicBarrier;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/** Several threads that use one map at the same time. */
final class SharedUse {
    private SharedUse() {
    }

    /** What an operation took, of all that all threads did, by the clock; and what they read. */
    record Outcome(double nanosPerOperation, long checksum) {
    }

    private record Span(long start, long end, long checksum) {
    }

    /** Lets as many threads as there are batches serve one each. */
    static Outcome time(RangeMap map, List<List<Operation>> batches)
            throws InterruptedException, ExecutionException {
        List<Callable<Span>> tasks = new ArrayList<>();
        batches.forEach(batch -> tasks.add(() -> serve(map, batch)));
        List<Span> spans = callTogether(tasks);
        long start = spans.stream().mapToLong(Span::start).min().orElseThrow();
        long end = spans.stream().mapToLong(Span::end).max().orElseThrow();
        return new Outcome((double) (end - start) / batches.stream().mapToInt(List::size).sum(),
                spans.stream().mapToLong(Span::checksum).sum());
    }

    /** Calls each task in a thread of its own, and none before all threads are there. */
    static <T> List<T> callTogether(List<Callable<T>> tasks)
            throws InterruptedException, ExecutionException {
        CyclicBarrier together = new CyclicBarrier(tasks.size());
        ExecutorService threads = Executors.newFixedThreadPool(tasks.size());
        try {
            List<Future<T>> futures = new ArrayList<>();
            for (Callable<T> task : tasks) {
                futures.add(threads.submit(() -> {
                    together.await();
                    return task.call();
                }));
            }
            List<T> results = new ArrayList<>();
            for (Future<T> future : futures) {
                results.add(future.get());
            }
            return results;
        } finally {
            threads.shutdown();
        }
    }

    private static Span serve(RangeMap map, List<Operation> operations) {
        // Made here, where it shares no line of a cache with that of another thread.
        Reader reader = new Reader();
        long start = System.nanoTime();
        for (Operation operation : operations) {
            operation.applyTo(map, reader);
        }
        return new Span(start, System.nanoTime(), reader.checksum());
    }
}
