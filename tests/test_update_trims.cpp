// The two trims of the update against a plain sweep written here, position
// by position, on factored triangular bases: the order vectors (Rnto, Cnto,
// their inverses and Cbto), the range left, and clear marks afterwards.
// Data: VIM%Rnto/Cnto/Rotn/Cotn/Cbto (copied before, restored after each
// range), the row and column copies of U (read only), VIM%HelpZ (marks by
// position, clear before and after), VIM%HelpI and IIN%Cpnx/Cppr (lists).
// The bases run from a few slacks (the sweeps reach most positions) to
// nearly all slacks (long stretches that no sweep reaches).  The backward
// sweep starts from a column with rows inside the range, as a spike has.
#include <vector>

#include "interface/state.h"
#include "runtime/records.h"
#include "support/lu_check.h"
#include "update/update_inner.h"

namespace {

using Trims = luc::ApiTest;

struct Order {
  std::vector<int> rnto, cnto, rotn, cotn, cbto;
  explicit Order(const vlu::VIM *v) {
    const int n = v->NumRow;
    for (auto *p : {&rnto, &cnto, &rotn, &cotn, &cbto}) p->assign(n + 2, 0);
    for (int k = 1; k <= n; ++k) {
      rnto[k] = v->Rnto[k];
      cnto[k] = v->Cnto[k];
      rotn[k] = v->Rotn[k];
      cotn[k] = v->Cotn[k];
      cbto[k] = v->Cbto[k];
    }
  }
  void Restore(vlu::VIM *v) const {
    for (int k = 1; k <= v->NumRow; ++k) {
      v->Rnto[k] = rnto[k];
      v->Cnto[k] = cnto[k];
      v->Rotn[k] = rotn[k];
      v->Cotn[k] = cotn[k];
      v->Cbto[k] = cbto[k];
    }
  }
  void Put(int p, int r, int c, int m) {
    rnto[p] = r;
    cnto[p] = c;
    rotn[r] = p;
    cotn[c] = p;
    cbto[p] = m;
  }
  bool operator==(const Order &o) const {
    return rnto == o.rnto && cnto == o.cnto && rotn == o.rotn && cotn == o.cotn && cbto == o.cbto;
  }
};

struct Entry {
  int r, c, m;
};

// The forward sweep, one position at a time.
int Forward(const vlu::LUF *f, Order &o, int sf, int sl) {
  std::vector<int> mark(sl + 2, 0);
  std::vector<Entry> list{{o.rnto[sf], o.cnto[sf], o.cbto[sf]}};
  auto mark_row = [&](int r, int from) {
    for (int j = f->Rstr[r] + from; j < f->Rstr[r] + f->Rlen[r]; ++j)
      mark[std::min(o.cotn[f->Ic[j]], sl + 1)] = 1;
  };
  mark_row(o.rnto[sf], 0);
  int out = sf;
  for (int p = sf + 1; p <= sl; ++p) {
    if (!mark[p]) {
      o.Put(out++, o.rnto[p], o.cnto[p], o.cbto[p]);
      continue;
    }
    list.push_back({o.rnto[p], o.cnto[p], o.cbto[p]});
    mark_row(o.rnto[p], 1);
  }
  for (size_t k = 0; k < list.size(); ++k) o.Put(out + int(k), list[k].r, list[k].c, list[k].m);
  return out;
}

// The backward sweep from the column at Spike_First.
int Backward(const vlu::LUF *f, Order &o, int sf, int sl, int spike) {
  std::vector<int> mark(sl + 2, 0);
  std::vector<Entry> list;
  auto mark_col = [&](int c, int from) {
    for (int q = f->Cstr[c] + from; q < f->Cstr[c] + f->Clen[c]; ++q)
      mark[std::max(o.rotn[f->Ir[q]], sf)] = 1;
  };
  mark_col(spike, 0);
  int out = sl;
  for (int p = sl; p > sf; --p) {
    if (!mark[p]) {
      o.Put(out--, o.rnto[p], o.cnto[p], o.cbto[p]);
      continue;
    }
    list.push_back({o.rnto[p], o.cnto[p], o.cbto[p]});
    mark_col(o.cnto[p], 1);
  }
  for (size_t k = 0; k < list.size(); ++k) o.Put(out - int(k), list[k].r, list[k].c, list[k].m);
  return out;
}

TEST_F(Trims, SweepsMoveThePositionsAsAPlainSweepDoes) {
  int ranges = 0;
  for (double slacks : {0.1, 0.6, 0.95}) {
    Restart();
    const int n = 700;
    const luc::Triangular s = luc::Make_Triangular(n, luc::Shape::Upper, 4000 + int(slacks * 100), true, slacks);
    ASSERT_EQ(luc::Factor(s.c, s.c.basis), 0);
    vlu::VMI *env = vlu::Iface().env;
    vlu::VIM *v = env->Vim;
    std::mt19937_64 gen(99);
    for (int t = 0; t < 40; ++t) {
      int sf = 1 + int(gen() % n), sl = 1 + int(gen() % n);
      if (sf > sl) std::swap(sf, sl);
      if (sf == sl) continue;
      SCOPED_TRACE(::testing::Message() << "slacks " << slacks << " range " << sf << ".." << sl);
      const Order before(v);
      // The backward sweep starts from the column of the last position, so
      // that it finds rows inside the range.
      const int spike = v->Cnto[sl];

      Order want = before;
      const int wantFirst = Forward(env->Luf, want, sf, sl);
      const int wantLast = Backward(env->Luf, want, wantFirst, sl, spike);

      vlu::Upd_State st;
      st.Spike_First = sf;
      st.Spike_Last = sl;
      st.Icolcr = spike;
      vlu::Trim_Singular_Cols(env, st);
      EXPECT_EQ(st.Spike_First, wantFirst);
      vlu::Trim_Singular_Rows(env, st);
      EXPECT_EQ(st.Spike_First, wantFirst);
      EXPECT_EQ(st.Spike_Last, wantLast);
      EXPECT_TRUE(Order(v) == want);
      int marked = 0;
      for (int i = 1; i <= n + 1; ++i) marked += v->HelpZ[i] != 0;
      EXPECT_EQ(marked, 0);
      before.Restore(v);
      ++ranges;
    }
  }
  EXPECT_GT(ranges, 100);
}

}  // namespace
