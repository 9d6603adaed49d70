// Smallest complete program on an installed kel: one event through the loop.
#include "kel_loop.h"

class App : public KelLoop {
public:
    App() : KelLoop(4) {}
    void procSubMsg(const QEvt*) override {
        ++seen;
        exitLoop();
    }
    int seen = 0;
};

int main() {
    KelLoop::init_all(0x1000000, "consumer", nullptr);
    App app;
    app.post(KelLoop::newEvt(SIG_INNER_PROC + 1, sizeof(GeneralQEvt)));
    int ret = app.execLoop();
    return ret == 0 && app.seen == 1 ? 0 : 1;
}
