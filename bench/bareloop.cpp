// bareloop QUEUE DATABASE text|bound: the least that any intake must do, to compare with. Makes
// QUEUE, receives messages, parses each, and inserts its text in transactions of 256 rows, until
// one says "last"; prints the events per second from the first to the last commit. With "text" each
// row is a statement of its own, written out, as the daemon's are; with "bound" one prepared
// statement.

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <mqueue.h>

#include <jansson.h>
#include <sqlite3.h>

namespace {

constexpr int kBatch = 256;

bool run(sqlite3* store, const char* sql) {
    return sqlite3_exec(store, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

/// How a row goes in.
class Inserter {
  public:
    Inserter(sqlite3* store, bool bound) : m_store(store) {
        if (bound) {
            sqlite3_prepare_v2(store, "INSERT INTO Events VALUES(1, 1, ?1, ?2, 0, ?3)", -1,
                               &m_statement, nullptr);
        }
    }
    ~Inserter() { sqlite3_finalize(m_statement); }
    Inserter(const Inserter&) = delete;
    Inserter& operator=(const Inserter&) = delete;

    void insert(long number, const char* type, const char* text) {
        if (m_statement == nullptr) {
            m_sql =
                "INSERT INTO Events (bootCount, standbyCount, kernelTime, type, status, data) "
                "VALUES (1, 1, ";
            m_sql.append(std::to_string(number)).append(", '").append(type);
            m_sql.append("', 0, '").append(text).append("' );");
            run(m_store, m_sql.c_str());
            return;
        }
        sqlite3_bind_int64(m_statement, 1, number);
        sqlite3_bind_text(m_statement, 2, type, -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(m_statement, 3, text, -1, SQLITE_TRANSIENT);
        sqlite3_step(m_statement);
        sqlite3_reset(m_statement);
    }

  private:
    sqlite3* m_store;
    sqlite3_stmt* m_statement = nullptr;
    std::string m_sql;
};

/// Inserts the text; @return whether the event says that it is the last one.
bool take(Inserter& inserter, const char* text, long number) {
    json_t* event = json_loads(text, 0, nullptr);
    const json_t* data = json_object_get(event, "data");
    const bool last = json_is_true(json_object_get(data, "last"));
    inserter.insert(number, json_string_value(json_object_get(event, "event-type")), text);
    json_decref(event);
    return last;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    const mqd_t queue = mq_open(argv[1], O_RDONLY | O_CREAT, 0660, nullptr);
    mq_attr attributes{};
    sqlite3* store = nullptr;
    if (queue == static_cast<mqd_t>(-1) || mq_getattr(queue, &attributes) != 0 ||
        sqlite3_open(argv[2], &store) != SQLITE_OK ||
        !run(store,
             "CREATE TABLE Events(bootCount INT, standbyCount INT, kernelTime INT, type TEXT, "
             "status INT, data BLOB)")) {
        std::perror("bareloop");
        return 1;
    }
    auto inserter = std::make_unique<Inserter>(store, std::string(argv[3]) == "bound");
    std::puts("ready");
    std::fflush(stdout);
    std::vector<char> buffer(static_cast<std::size_t>(attributes.mq_msgsize) + 1);
    std::chrono::steady_clock::time_point begin{};
    long count = 0;
    for (bool last = false; !last;) {
        const ssize_t size = mq_receive(queue, buffer.data(), buffer.size() - 1, nullptr);
        if (size < 1) continue;
        buffer[static_cast<std::size_t>(size)] = '\0';
        if (count == 0) begin = std::chrono::steady_clock::now();
        if (count % kBatch == 0) run(store, "BEGIN");
        last = take(*inserter, buffer.data(), ++count);
        if (last || count % kBatch == 0) run(store, "COMMIT");
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    std::printf("%.0f\n", static_cast<double>(count) / time.count());
    inserter.reset();
    sqlite3_close(store);
    mq_close(queue);
    return mq_unlink(argv[1]);
}
